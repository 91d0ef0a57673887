#ifndef QVAPI_FALLBACK_FILE_H
#define QVAPI_FALLBACK_FILE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <mutex>

namespace Quorvel {

/// One append at a time in this process, for loggers without locks too: a forked child inherits no
/// handle of the file, and comparing with the file-size limit holds for the write that follows.
std::mutex& appendLock();

/// Opens without waiting, and nothing but a regular file: not a FIFO's end nor a device.
/// @return a descriptor for the caller to close, with its `status`; or -1.
int openRegular(const char* fileName, int flags, struct stat& status);

/// Writes the whole record behind the `size` bytes of the file or, where the process's file-size
/// limit is in the way, nothing, and raises no SIGXFSZ in the application.
void appendRecord(int fd, const char* data, unsigned int len, off_t size);

}  // namespace Quorvel

#endif  // QVAPI_FALLBACK_FILE_H
