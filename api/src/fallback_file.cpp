#include "fallback_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "descriptor.h"
#include "fork_safety.h"
#include "locks.h"

namespace Quorvel {
namespace {

const char* const kFallbackFile = "/data/qvagent/msgdat.dat";
const off_t kMaxFallbackSize = 1000000000;

// Appends share the lock; a fork excludes them, so that a child inherits no handle of the file, and
// so does an append under a file-size limit, so that comparing with the limit holds for the write.
class AppendLock final : public ForkMember {
 public:
    pthread_rwlock_t lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

    void lockForFork() override { pthread_rwlock_wrlock(&lock); }
    void unlockAfterFork() override { pthread_rwlock_unlock(&lock); }
    void renewInChild() override { initWritersFirst(lock); }
};

AppendLock appendLock;

__attribute__((constructor)) void enrolAppendLock() { enrol(appendLock, nullptr); }

// Opens without waiting, and nothing but a regular file: not a FIFO's end nor a device.
int openRegular(int flags, struct stat& status) {
    const int fd =
        aboveStandardStreams(open(kFallbackFile, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
    if (fd >= 0 && (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

// The process's limit on the size of files, from which the signal that a refused write sends comes.
rlim_t fileSizeLimit() {
    rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_FSIZE, &limit);
    return limit.rlim_cur;
}

// Writes the whole record or, where the limit is in the way, nothing. Other processes append
// between the comparison and the write, so the signal is kept from this thread; one that was
// pending before is the application's and stays.
void appendWithinLimit(int fd, const char* data, size_t length, off_t size, rlim_t limit) {
    if (static_cast<rlim_t>(size) + length > limit) {
        return;
    }
    sigset_t exceeded;
    sigset_t mask;
    sigset_t pending;
    sigemptyset(&exceeded);
    sigaddset(&exceeded, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &exceeded, &mask);
    sigpending(&pending);
    if (write(fd, data, length) < 0 && errno == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        const timespec none = {0, 0};
        sigtimedwait(&exceeded, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

void appendRecord(int fd, const char* data, size_t length, off_t size, rlim_t limit) {
    fchmod(fd, 0666);
    if (limit != RLIM_INFINITY) {
        appendWithinLimit(fd, data, length, size, limit);
    } else if (write(fd, data, length) < 0) {
        // Not reported: nobody could act on it.
    }
}

}  // namespace

bool storeInFallbackFile(const char* request, uint32_t length) {
    const size_t recordLength = sizeof(length) + length;
    const std::unique_ptr<char[]> record(new char[recordLength]);
    memcpy(record.get(), &length, sizeof(length));
    memcpy(record.get() + sizeof(length), request, length);

    const rlim_t limit = fileSizeLimit();
    const ReadGuard shared(appendLock.lock, limit == RLIM_INFINITY);
    const WriteGuard alone(appendLock.lock, limit != RLIM_INFINITY);
    struct stat status = {};
    int fd = openRegular(O_WRONLY | O_APPEND | O_CREAT, status);
    if (fd < 0) {
        // A file that cannot be appended to may still be seen to be full.
        fd = openRegular(O_RDONLY, status);
    } else if (status.st_size <= kMaxFallbackSize) {
        appendRecord(fd, record.get(), recordLength, status.st_size, limit);
    }
    if (fd >= 0) {
        close(fd);
    }
    return status.st_size <= kMaxFallbackSize;
}

}  // namespace Quorvel
