#include "fallback_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "descriptor.h"
#include "fork_safety.h"

namespace Quorvel {
namespace {

class AppendLock final : public ForkMember {
 public:
    std::mutex mutex;

    void lockForFork() override { mutex.lock(); }
    void unlockAfterFork() override { mutex.unlock(); }
    void renewInChild() override { new (&mutex) std::mutex; }
};

AppendLock lock;

__attribute__((constructor)) void enrolAppendLock() { enrol(lock); }

}  // namespace

std::mutex& appendLock() { return lock.mutex; }

int openRegular(const char* fileName, int flags, struct stat& status) {
    const int fd =
        aboveStandardStreams(open(fileName, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

// Other processes append between the comparison and the write, so the signal that a refused write
// sends to this thread is kept from it; one that was pending before is the application's and stays.
void appendRecord(int fd, const char* data, unsigned int len, off_t size) {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_FSIZE, &limit);
    if (limit.rlim_cur == RLIM_INFINITY) {
        (void)!write(fd, data, len);
        return;
    }
    if (static_cast<rlim_t>(size) + len > limit.rlim_cur) {
        return;
    }
    sigset_t exceeded;
    sigset_t mask;
    sigset_t pending;
    sigemptyset(&exceeded);
    sigaddset(&exceeded, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &exceeded, &mask);
    sigpending(&pending);
    if (write(fd, data, len) < 0 && errno == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec none = {0, 0};
        sigtimedwait(&exceeded, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

}  // namespace Quorvel
