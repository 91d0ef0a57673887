#include "fork_safety.h"

#include <pthread.h>

#include <mutex>
#include <new>

namespace Quorvel {
namespace {

std::mutex registryLock;

// A child forked in the middle of enrol() or withdraw() still walks a whole list: each is one store
// to a link that the walk follows.
std::atomic<ForkMember*> newest{nullptr};

}  // namespace

class ForkHandlers {
 public:
    static void prepare() {
        const int error = errno;
        if (enter()) {
            registryLock.lock();
            forEach(&ForkMember::lockForFork);
        }
        errno = error;
    }

    static void parent() {
        const int error = errno;
        if (leave()) {
            forEach(&ForkMember::unlockAfterFork);
            registryLock.unlock();
        }
        errno = error;
    }

    static void child() {
        const int error = errno;
        forEach(&ForkMember::renewInChild);
        new (&registryLock) std::mutex;
        leave();
        errno = error;
    }

 private:
    // The handlers count as an operation too: a signal handler may fork while they run.
    static bool enter() {
        const bool outermost = callDepth++ == 0;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        return outermost;
    }

    static bool leave() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        return --callDepth == 0;
    }

    static void forEach(void (ForkMember::*operation)()) {
        for (ForkMember* member = newest; member != nullptr; member = member->m_next) {
            (member->*operation)();
        }
    }
};

namespace {

__attribute__((constructor)) void registerForkHandlers() {
    pthread_atfork(ForkHandlers::prepare, ForkHandlers::parent, ForkHandlers::child);
}

}  // namespace

void enrol(ForkMember& member) {
    const std::lock_guard<std::mutex> guard(registryLock);
    ForkMember* const next = newest;
    member.m_next = next;
    if (next != nullptr) {
        next->m_previous = &member;
    }
    newest = &member;
}

void withdraw(ForkMember& member) {
    const std::lock_guard<std::mutex> guard(registryLock);
    ForkMember* const next = member.m_next;
    if (next != nullptr) {
        next->m_previous = member.m_previous;
    }
    (member.m_previous != nullptr ? member.m_previous->m_next : newest) = next;
}

}  // namespace Quorvel
