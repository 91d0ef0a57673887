#include "agent.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>
#include <vector>

namespace bench {
namespace {

const char* const kAgentSocket = "/data/container2host/cqv";
const char* const kSystemLog = "/dev/log";
const uint16_t kPort = 20005;

void check(bool done, const char* what) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

sockaddr_in loopback() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(kPort);
    return address;
}

sockaddr_un local(const char* path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    return address;
}

template <typename Address>
int serve(int type, const Address& address) {
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    const int fd = socket(name->sa_family, type | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    check(fd >= 0 && bind(fd, name, sizeof(address)) == 0, "bind");
    check(type != SOCK_STREAM || listen(fd, 128) == 0, "listen");
    return fd;
}

int serveLocal(int type, const char* path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::remove(path);
    return serve(type, local(path));
}

bool senderApart = false;

void keepTo(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof(set), &set);
}

[[noreturn]] void readForEver(std::vector<pollfd> sockets, size_t listeners, Pace pace,
                              std::atomic<uint64_t>& received) {
    std::vector<char> bytes(pace == Pace::kSlow ? 4096 : 262144);
    for (;;) {
        poll(sockets.data(), sockets.size(), -1);
        for (size_t i = 0; i < listeners; ++i) {
            const int fd = accept4(sockets[i].fd, nullptr, nullptr, SOCK_NONBLOCK);
            if (fd >= 0) {
                sockets.push_back({fd, POLLIN, 0});
            }
        }
        for (size_t i = listeners; i < sockets.size(); ++i) {
            const ssize_t size = recv(sockets[i].fd, bytes.data(), bytes.size(), 0);
            if (size > 0) {
                received += static_cast<uint64_t>(size);
            } else if (size == 0) {
                close(sockets[i].fd);
                sockets[i].fd = -1;
            }
        }
        if (pace == Pace::kSlow) {
            usleep(1000);
        }
    }
}

}  // namespace

Agent::Agent(Pace pace) {
    void* const shared = mmap(nullptr, sizeof(*m_received), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    check(shared != MAP_FAILED, "mmap");
    m_received = new (shared) std::atomic<uint64_t>(0);
    std::vector<pollfd> sockets = {
        {serveLocal(SOCK_STREAM, kAgentSocket), POLLIN, 0},
        {serve(SOCK_STREAM, loopback()), POLLIN, 0},
        {serve(SOCK_DGRAM, loopback()), POLLIN, 0},
        {serveLocal(SOCK_DGRAM, kSystemLog), POLLIN, 0},
    };
    m_pid = fork();
    check(m_pid >= 0, "fork");
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (senderApart) {
            keepTo(1);
        }
        readForEver(std::move(sockets), 2, pace, *m_received);
    }
    for (const pollfd& entry : sockets) {
        close(entry.fd);
    }
}

Agent::~Agent() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    munmap(m_received, sizeof(*m_received));
}

void Agent::stop() { kill(m_pid, SIGSTOP); }

void Agent::settle() const {
    uint64_t before = 0;
    do {
        before = *m_received;
        usleep(100);
    } while (*m_received != before);
}

SenderApart::SenderApart(bool apart) {
    sched_getaffinity(0, sizeof(m_before), &m_before);
    senderApart = apart && CPU_COUNT(&m_before) > 1;
    if (senderApart) {
        keepTo(0);
    }
}

SenderApart::~SenderApart() {
    sched_setaffinity(0, sizeof(m_before), &m_before);
    senderApart = false;
}

int connectToAgent(int socketType) {
    const sockaddr_un unixAddress = local(kAgentSocket);
    const sockaddr_in inetAddress = loopback();
    const bool isLocal = socketType == 0;
    const int type = socketType == 2 ? SOCK_DGRAM | SOCK_NONBLOCK : SOCK_STREAM;
    const int fd = socket(isLocal ? AF_UNIX : AF_INET, type, 0);
    check(fd >= 0 && connect(fd,
                             isLocal ? reinterpret_cast<const sockaddr*>(&unixAddress)
                                     : reinterpret_cast<const sockaddr*>(&inetAddress),
                             isLocal ? sizeof(unixAddress) : sizeof(inetAddress)) == 0,
          "connect");
    if (socketType != 2) {
        const timeval timeout = {0, 5000};
        const int size = 1048576;
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    }
    return fd;
}

}  // namespace bench
