#ifndef QVAPI_STANDARD_STREAMS_H
#define QVAPI_STANDARD_STREAMS_H

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace Quorvel {

/// Moves a descriptor of ours off 0, 1 and 2: a daemon that closed its standard streams must not
/// print into the agent or the fallback file.
/// @return the descriptor to use, or -1 with errno set; `fd` is then closed.
inline int aboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

}  // namespace Quorvel

#endif  // QVAPI_STANDARD_STREAMS_H
