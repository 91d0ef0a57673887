#ifndef QVAPI_LOCKS_H
#define QVAPI_LOCKS_H

#include <pthread.h>

#include <mutex>
#include <new>

namespace Quorvel {

/// Holds a side of a read-write lock for a scope; takes nothing when `needed` is false.
template <int (*Lock)(pthread_rwlock_t*)>
class RwGuard {
 public:
    explicit RwGuard(pthread_rwlock_t& lock, bool needed = true)
        : m_lock(needed ? &lock : nullptr) {
        if (m_lock != nullptr) {
            Lock(m_lock);
        }
    }
    ~RwGuard() {
        if (m_lock != nullptr) {
            pthread_rwlock_unlock(m_lock);
        }
    }
    RwGuard(const RwGuard&) = delete;
    RwGuard& operator=(const RwGuard&) = delete;

 private:
    pthread_rwlock_t* const m_lock;
};

using ReadGuard = RwGuard<pthread_rwlock_rdlock>;
using WriteGuard = RwGuard<pthread_rwlock_wrlock>;

/// Keeps pthread_cancel(3) off a scope: what it opens it must be able to close.
class Uncancelled {
 public:
    Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~Uncancelled() { pthread_setcancelstate(m_before, nullptr); }
    Uncancelled(const Uncancelled&) = delete;
    Uncancelled& operator=(const Uncancelled&) = delete;

 private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

/// Holds a mutex for a scope when `needed` is true.
template <typename Mutex>
std::unique_lock<Mutex> lockIf(bool needed, Mutex& mutex) {
    return needed ? std::unique_lock<Mutex>(mutex)
                  : std::unique_lock<Mutex>(mutex, std::defer_lock);
}

/// Makes a lock or condition as new in a forked child: it is never released or destroyed there,
/// since it may know threads that the child does not have.
template <typename Lock>
void makeAnew(Lock& lock) {
    new (&lock) Lock;
}
inline void makeAnew(std::mutex& lock) { pthread_mutex_init(lock.native_handle(), nullptr); }
inline void makeAnew(pthread_rwlock_t& lock) { pthread_rwlock_init(&lock, nullptr); }

}  // namespace Quorvel

#endif  // QVAPI_LOCKS_H
