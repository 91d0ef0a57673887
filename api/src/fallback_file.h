#ifndef QVAPI_FALLBACK_FILE_H
#define QVAPI_FALLBACK_FILE_H

#include <stddef.h>
#include <sys/resource.h>
#include <sys/types.h>

#include "locks.h"

namespace Quorvel {

/// A regular file, open to be measured or to take records, and close-on-exec. Opening waits for
/// nothing, and whatever else stands in the file's place counts as a file that cannot be opened.
/// While one is open, no fork of the process goes on: no child inherits the descriptor.
class FallbackFile {
 public:
    /// @param flags of open(2); a file that O_CREAT makes is readable and writable for everyone.
    FallbackFile(const char* name, int flags);
    ~FallbackFile();
    FallbackFile(const FallbackFile&) = delete;
    FallbackFile& operator=(const FallbackFile&) = delete;

    bool isOpen() const { return m_fd >= 0; }

    /// As of the opening.
    off_t size() const { return m_size; }

    /// Appends all of `data` in one write(2), or as far as it can tell nothing: what a full disk
    /// cuts short is taken back, unless somebody has appended behind it by then. Makes the
    /// file readable and writable for everyone. Raises no signal and reports nothing.
    void append(const char* data, size_t length) const;

 private:
    ssize_t writeWithinLimit(const char* data, size_t length) const;

    const Uncancelled m_uncancelled;
    const rlim_t m_limit;
    const ReadGuard m_shared;
    const WriteGuard m_alone;
    off_t m_size = 0;
    mode_t m_mode = 0;
    int m_fd;
};

}  // namespace Quorvel

#endif  // QVAPI_FALLBACK_FILE_H
