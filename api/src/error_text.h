#ifndef QVAPI_ERROR_TEXT_H
#define QVAPI_ERROR_TEXT_H

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <mutex>
#include <string>

#include "fair_mutex.h"
#include "locks.h"

namespace Quorvel {

/// Room for an error text and its NUL: at most 1022 characters are kept.
const size_t kErrorTextSize = 1023;

/// An object's last error text: its members that hold and guard it, and a turnstile. Whoever waits
/// for the lock stands in the turnstile, so that no stream of readers keeps the writers out, nor
/// the other way round: the lock alone prefers readers.
class ErrorText {
 public:
    /// `text` gets its room here, once: replacing it never allocates. The lock is used while
    /// `needLock` is true.
    ErrorText(std::string& text, pthread_rwlock_t& lock, const bool& needLock)
        : m_text(text), m_lock(lock), m_needLock(needLock) {
        m_text.reserve(kErrorTextSize);
    }

    void replace(const char* replacement) {
        auto turn = lockIf(m_needLock, m_turnstile);
        const WriteGuard guard(m_lock, m_needLock);
        pass(turn);
        m_text = replacement;
    }

    std::string copy() {
        auto turn = lockIf(m_needLock, m_turnstile);
        const ReadGuard guard(m_lock, m_needLock);
        pass(turn);
        return m_text;
    }

    void lockForFork() {
        m_turnstile.lock();
        pthread_rwlock_wrlock(&m_lock);
    }
    void unlockAfterFork() {
        pthread_rwlock_unlock(&m_lock);
        m_turnstile.unlock();
    }
    void renewInChild() {
        makeAnew(m_turnstile);
        makeAnew(m_lock);
    }

 private:
    static void pass(std::unique_lock<FairMutex>& turn) {
        if (turn.owns_lock()) {
            turn.unlock();
        }
    }

    std::string& m_text;
    pthread_rwlock_t& m_lock;
    const bool& m_needLock;
    FairMutex m_turnstile;
};

/// The text of a failure, formatted before any lock is taken, so that %m means the caller's errno.
struct FormattedText {
    FormattedText(const char* format, va_list arguments) {
        vsnprintf(text, sizeof(text), format, arguments);
    }
    char text[kErrorTextSize];
};

/// Catches the text of the failure that a SocketClient reports on this thread while it lives: the
/// client's own text may be another thread's by the time that it is read.
class CaughtFailure {
 public:
    CaughtFailure() {
        m_text[0] = '\0';
        m_current = m_text;
    }
    ~CaughtFailure() { m_current = nullptr; }
    CaughtFailure(const CaughtFailure&) = delete;
    CaughtFailure& operator=(const CaughtFailure&) = delete;

    static void report(const FormattedText& failure) {
        if (m_current != nullptr) {
            memcpy(m_current, failure.text, sizeof(failure.text));
        }
    }

    /// Empty when none was reported.
    const char* text() const { return m_text; }

 private:
    static inline thread_local char* m_current __attribute__((tls_model("initial-exec"))) = nullptr;
    char m_text[kErrorTextSize];
};

}  // namespace Quorvel

#endif  // QVAPI_ERROR_TEXT_H
