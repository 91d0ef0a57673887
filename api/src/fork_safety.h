#ifndef QVAPI_FORK_SAFETY_H
#define QVAPI_FORK_SAFETY_H

#include <errno.h>
#include <pthread.h>

#include <atomic>

namespace Quorvel {

/// How many operations of the library are open on this thread. A fork that finds any was made by a
/// signal handler that interrupted one of them, and must not wait for a lock that its own thread
/// may hold: read-write locks cannot be asked.
class CallDepth {
 public:
    /// @return whether no operation was open.
    static bool enter() {
        const bool outermost = m_depth++ == 0;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        return outermost;
    }
    static void leave() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        --m_depth;
    }
    static bool isOutermost() { return m_depth == 1; }

 private:
    static inline thread_local int m_depth __attribute__((tls_model("initial-exec"))) = 0;
};

/// Forks that wait for the calls in flight.
inline std::atomic<int> waitingForks{0};

/// Returns when the fork that waits is done.
void letForkPass();

/// Stands around all that a public operation does with a lock, with memory or with libc. It counts
/// the operation for forks, lets a waiting fork go first, since calls that follow each other could
/// keep it waiting for ever, and leaves errno as it was.
class CallScope {
 public:
    CallScope() : m_errno(errno) {
        if (CallDepth::enter() && waitingForks.load(std::memory_order_relaxed) != 0) {
            letForkPass();
        }
    }
    ~CallScope() {
        CallDepth::leave();
        errno = m_errno;
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

 private:
    const int m_errno;
};

/// Something that a fork must find whole and a forked child must make anew: its locks, and what
/// the child may not share with its parent.
class ForkMember {
 public:
    virtual void lockForFork() = 0;
    virtual void unlockAfterFork() = 0;
    /// Runs in the child, before fork() returns there. Locks are made anew and never released or
    /// destroyed: they know threads that the child does not have. May find locks held by others,
    /// when the fork was made from within an operation.
    virtual void renewInChild() = 0;

 protected:
    ~ForkMember() = default;

 private:
    friend class ForkRegistry;

    std::atomic<ForkMember*> m_next{nullptr};
    ForkMember* m_previous = nullptr;
    bool m_enrolled = false;
    /// The thread on whose stack the owner stands; 0 when it stands elsewhere.
    pthread_t m_stackOf = 0;
};

/// Enrols a member for all forks to come. The latest is locked first: what a library-wide member
/// guards, enrolled when the library is loaded, may be used under any other lock.
/// @param owner the object of the application that the member looks at, or null. One on the stack
///   of a thread is left out of a child's own forks when the thread does not exist there: its
///   memory is another thread's by then.
void enrol(ForkMember& member, const void* owner);
void withdraw(ForkMember& member);

}  // namespace Quorvel

#endif  // QVAPI_FORK_SAFETY_H
