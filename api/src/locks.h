#ifndef QVAPI_LOCKS_H
#define QVAPI_LOCKS_H

#include <pthread.h>

#include <mutex>

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

/// Makes a read-write lock that a stream of readers cannot keep a writer, and so a fork, from.
inline void initWritersFirst(pthread_rwlock_t& lock) {
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock, &attributes);
    pthread_rwlockattr_destroy(&attributes);
}

/// Holds a mutex for a scope when `needed` is true.
inline std::unique_lock<std::mutex> lockIf(bool needed, std::mutex& mutex) {
    return needed ? std::unique_lock<std::mutex>(mutex)
                  : std::unique_lock<std::mutex>(mutex, std::defer_lock);
}

}  // namespace Quorvel

#endif  // QVAPI_LOCKS_H
