#ifndef QVAPI_FORK_SAFETY_H
#define QVAPI_FORK_SAFETY_H

#include <errno.h>

#include <atomic>

namespace Quorvel {

/// How many operations of the library are open on this thread. A fork that finds any was made by a
/// signal handler that interrupted one of them, and must not wait for a lock that its own thread
/// may hold: read-write locks cannot be asked.
inline thread_local int callDepth __attribute__((tls_model("initial-exec"))) = 0;

/// Open from the first line of every public operation that takes a lock or calls libc to its last.
class CallScope {
 public:
    CallScope() : m_errno(errno) {
        ++callDepth;
        std::atomic_signal_fence(std::memory_order_seq_cst);
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
    friend void enrol(ForkMember& member);
    friend void withdraw(ForkMember& member);
    friend class ForkHandlers;

    std::atomic<ForkMember*> m_next{nullptr};
    ForkMember* m_previous = nullptr;
};

/// Enrols a member for all forks to come. The latest is locked first: what a library-wide member
/// guards, enrolled when the library is loaded, may be used under any other lock.
void enrol(ForkMember& member);
void withdraw(ForkMember& member);

}  // namespace Quorvel

#endif  // QVAPI_FORK_SAFETY_H
