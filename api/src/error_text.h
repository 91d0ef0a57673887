#ifndef QVAPI_ERROR_TEXT_H
#define QVAPI_ERROR_TEXT_H

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>

#include <string>

#include "locks.h"

namespace Quorvel {

/// Room for an error text and its NUL: at most 1022 characters are kept.
const size_t kErrorTextSize = 1023;

/// Replaces `text` under the write side of `lock`. Allocates nothing when `text` has room for
/// kErrorTextSize and `replacement` is no longer.
inline void replaceErrorText(std::string& text, pthread_rwlock_t& lock, bool needLock,
                             const char* replacement) {
    const WriteGuard guard(lock, needLock);
    text = replacement;
}

/// Formats before it takes the lock, so that %m means the caller's errno.
inline void formatErrorText(std::string& text, pthread_rwlock_t& lock, bool needLock,
                            const char* format, va_list arguments) {
    char formatted[kErrorTextSize];
    vsnprintf(formatted, sizeof(formatted), format, arguments);
    replaceErrorText(text, lock, needLock, formatted);
}

}  // namespace Quorvel

#endif  // QVAPI_ERROR_TEXT_H
