#ifndef QVAPI_FORK_SAFETY_H
#define QVAPI_FORK_SAFETY_H

#include <errno.h>
#include <pthread.h>

#include <atomic>

namespace Quorvel {

/// How many operations of the library are open on this thread. A fork that finds any was made by a
/// signal handler that interrupted one of them, and must not wait for a lock that its own thread
/// may hold: read-write locks cannot be asked.
inline thread_local int callDepth __attribute__((tls_model("initial-exec"))) = 0;

/// Forks that wait for the calls in flight.
inline std::atomic<int> waitingForks{0};

/// Returns when the fork that waits is done.
void letForkPass();

/// Open from the first line of every public operation that takes a lock or calls libc to its last.
/// A call that begins while a fork waits lets it go first: locks that are not first come, first
/// served would let calls pass the fork again and again.
class CallScope {
 public:
    CallScope() : m_errno(errno) {
        const bool outermost = callDepth++ == 0;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (outermost && waitingForks.load(std::memory_order_relaxed) != 0) {
            letForkPass();
        }
    }
    ~CallScope() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        --callDepth;
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
