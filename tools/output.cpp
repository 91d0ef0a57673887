#include "output.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "stop_signals.h"

namespace Quorvel {
namespace {

void awaitRoom(int fd) {
    pollfd polled = {fd, POLLOUT, 0};
    poll(&polled, 1, -1);
}

}  // namespace

bool openStandardStreams() {
    bool hasOutput = true;
    // open(2) takes the lowest free number, which is that of the missing stream.
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0 && open("/", O_PATH) == STDOUT_FILENO) {
            hasOutput = false;
        }
    }
    return hasOutput;
}

void Output::append(std::string_view text) {
    while (text.size() > kCapacity - m_size) {
        const size_t room = kCapacity - m_size;
        memcpy(m_buffer.get() + m_size, text.data(), room);
        m_size = kCapacity;
        text.remove_prefix(room);
        flush();
    }
    memcpy(m_buffer.get() + m_size, text.data(), text.size());
    m_size += text.size();
}

// What could not be written is not tried again.
void Output::flush() {
    const size_t size = std::exchange(m_size, 0);
    for (size_t written = 0; written < size;) {
        if (stopIsOverdue()) {
            throw std::runtime_error("ended before everything was printed");
        }
        const ssize_t result = write(m_fd, m_buffer.get() + written, size - written);
        if (result >= 0) {
            written += static_cast<size_t>(result);
        } else if (errno == EAGAIN) {
            awaitRoom(m_fd);
        } else if (errno != EINTR) {
            throw std::runtime_error(std::string("cannot write to standard output: ") +
                                     strerror(errno));
        }
    }
}

}  // namespace Quorvel
