#include "fallback_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fork_safety.h"
#include "probes.h"
#include "standard_streams.h"

namespace Quorvel {
namespace {

// Open files share the lock; a fork excludes them, and so does an append under a file-size limit,
// so that comparing with the limit holds for the write.
class OpenFileLock final : public ForkMember {
 public:
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    // Taken within the other one. Writes share it; what was cut short is taken back alone.
    pthread_rwlock_t writes = PTHREAD_RWLOCK_INITIALIZER;

    void lockForFork() override { pthread_rwlock_wrlock(&lock); }
    void unlockAfterFork() override { pthread_rwlock_unlock(&lock); }
    void renewInChild() override {
        makeAnew(lock);
        makeAnew(writes);
    }
};

OpenFileLock openFileLock;

__attribute__((constructor)) void enrolOpenFileLock() { enrol(openFileLock, nullptr); }

// The process's limit on the size of files, from which the signal that a refused write sends comes.
rlim_t fileSizeLimit() {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_FSIZE, &limit);
    return limit.rlim_cur;
}

// An appending write leaves the position behind its last byte.
void takeBack(int fd, off_t written) {
    struct stat status;
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (fstat(fd, &status) == 0 && status.st_size == end && ftruncate(fd, end - written) != 0) {
        // Not reported: nobody could act on it.
    }
}

// @return how much was written, or -1 with errno set.
ssize_t writeOnce(int fd, const char* data, size_t length) {
    const ReadGuard guard(openFileLock.writes);
    ssize_t written;
    do {
        written = write(fd, data, length);
    } while (written < 0 && errno == EINTR);
    return written;
}

// @return as writeOnce(); less than `length` was taken back if it could be.
ssize_t writeWhole(int fd, const char* data, size_t length) {
    const ssize_t written = writeOnce(fd, data, length);
    if (written >= 0 && static_cast<size_t>(written) < length) {
        const WriteGuard guard(openFileLock.writes);
        takeBack(fd, written);
    }
    return written;
}

}  // namespace

FallbackFile::FallbackFile(const char* name, int flags)
    : m_limit((flags & O_APPEND) != 0 ? fileSizeLimit() : RLIM_INFINITY),
      m_shared(openFileLock.lock, m_limit == RLIM_INFINITY),
      m_alone(openFileLock.lock, m_limit != RLIM_INFINITY),
      m_fd(aboveStandardStreams(open(name, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666))) {
    struct stat status;
    if (m_fd >= 0 && (fstat(m_fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(m_fd);
        m_fd = -1;
    }
    if (m_fd >= 0) {
        m_size = status.st_size;
        m_mode = status.st_mode;
    }
}

FallbackFile::~FallbackFile() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

void FallbackFile::append(const char* data, size_t length) const {
    if ((m_mode & 07777) != 0666) {
        fchmod(m_fd, 0666);
    }
    const ssize_t written =
        m_limit == RLIM_INFINITY ? writeWhole(m_fd, data, length) : writeWithinLimit(data, length);
    QVAPI_PROBE(fallback, static_cast<unsigned int>(length),
                written == static_cast<ssize_t>(length));
}

// Other processes append between the comparison and the write, so the signal is kept from this
// thread; one that was pending before is the application's and stays.
ssize_t FallbackFile::writeWithinLimit(const char* data, size_t length) const {
    if (static_cast<rlim_t>(m_size) + length > m_limit) {
        return -1;
    }
    sigset_t exceeded;
    sigset_t mask;
    sigset_t pending;
    sigemptyset(&exceeded);
    sigaddset(&exceeded, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &exceeded, &mask);
    sigpending(&pending);
    const ssize_t written = writeWhole(m_fd, data, length);
    if (written < 0 && errno == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec none = {0, 0};
        sigtimedwait(&exceeded, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return written;
}

}  // namespace Quorvel
