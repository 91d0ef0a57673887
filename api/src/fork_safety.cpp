#include "fork_safety.h"

#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>

#include "locks.h"

namespace Quorvel {

// A child forked in the middle of enrol() or withdraw() still walks a whole list: each is one store
// to a link that the walk follows.
class ForkRegistry {
 public:
    static void enrol(ForkMember& member, const void* owner) {
        const std::lock_guard<std::mutex> guard(m_lock);
        member.m_stackOf = owner != nullptr && isOnThreadStack(owner) ? pthread_self() : 0;
        ForkMember* const next = m_newest;
        member.m_next = next;
        if (next != nullptr) {
            next->m_previous = &member;
        }
        member.m_enrolled = true;
        m_newest = &member;
    }

    static void withdraw(ForkMember& member) {
        const std::lock_guard<std::mutex> guard(m_lock);
        unlink(member);
    }

    static void letForkPass() { const std::lock_guard<std::mutex> guard(m_lock); }

    // The handlers count as an operation too: a signal handler may fork while they run.
    static void prepare() {
        const int error = errno;
        const bool outermost = CallDepth::enter();
        ++waitingForks;
        if (outermost) {
            m_lock.lock();
            m_forkedByInitialThread = isInitialThread();
            forEach(&ForkMember::lockForFork);
        }
        errno = error;
    }

    static void parent() {
        const int error = errno;
        --waitingForks;
        if (CallDepth::isOutermost()) {
            forEach(&ForkMember::unlockAfterFork);
            m_lock.unlock();
        }
        CallDepth::leave();
        errno = error;
    }

    static void child() {
        const int error = errno;
        waitingForks = 0;
        forEach(&ForkMember::renewInChild);
        forgetLostStacks();
        m_initialThreadLives = m_forkedByInitialThread;
        makeAnew(m_lock);
        CallDepth::leave();
        errno = error;
    }

 private:
    static void forEach(void (ForkMember::*operation)()) {
        for (ForkMember* member = m_newest; member != nullptr; member = member->m_next) {
            (member->*operation)();
        }
    }

    static void unlink(ForkMember& member) {
        if (!member.m_enrolled) {
            return;
        }
        member.m_enrolled = false;
        ForkMember* const next = member.m_next;
        if (next != nullptr) {
            next->m_previous = member.m_previous;
        }
        (member.m_previous != nullptr ? member.m_previous->m_next : m_newest) = next;
    }

    static void forgetLostStacks() {
        for (ForkMember* member = m_newest; member != nullptr;) {
            ForkMember* const next = member->m_next;
            if (member->m_stackOf != 0 && pthread_equal(member->m_stackOf, pthread_self()) == 0) {
                unlink(*member);
            }
            member = next;
        }
    }

    // The one that the kernel started: its stack stays where it is in every child.
    static bool isInitialThread() {
        return m_initialThreadLives && syscall(SYS_gettid) == getpid();
    }

    static bool isOnThreadStack(const void* object) {
        pthread_attr_t attributes;
        if (isInitialThread() || pthread_getattr_np(pthread_self(), &attributes) != 0) {
            return false;
        }
        void* lowest = nullptr;
        size_t size = 0;
        pthread_attr_getstack(&attributes, &lowest, &size);
        pthread_attr_destroy(&attributes);
        return reinterpret_cast<uintptr_t>(object) - reinterpret_cast<uintptr_t>(lowest) < size;
    }

    static inline std::mutex m_lock;
    static inline std::atomic<ForkMember*> m_newest{nullptr};
    static inline bool m_initialThreadLives = true;
    static inline bool m_forkedByInitialThread = true;
};

namespace {

__attribute__((constructor)) void registerForkHandlers() {
    pthread_atfork(ForkRegistry::prepare, ForkRegistry::parent, ForkRegistry::child);
}

}  // namespace

void enrol(ForkMember& member, const void* owner) { ForkRegistry::enrol(member, owner); }

void withdraw(ForkMember& member) { ForkRegistry::withdraw(member); }

[[gnu::cold, gnu::noinline]] void letForkPass() { ForkRegistry::letForkPass(); }

}  // namespace Quorvel
