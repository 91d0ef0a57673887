#ifndef QUORVEL_BENCH_RAW_APPEND_H
#define QUORVEL_BENCH_RAW_APPEND_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace bench {

/// What a record costs the fallback file without a library: measured on one handle, appended on
/// another.
inline void appendByHand(const std::string& record) {
    const char* const path = "/data/qvagent/msgdat.dat";
    struct stat status = {};
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        fstat(fd, &status);
        close(fd);
    }
    fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    fchmod(fd, 0666);
    if (write(fd, record.data(), record.size()) < 0) {
        std::abort();
    }
    close(fd);
}

}  // namespace bench

#endif  // QUORVEL_BENCH_RAW_APPEND_H
