#include "fair_mutex.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace Quorvel {
namespace {

const int64_t kSecond = 1000000000;
const int64_t kPassing = 1500000;
const int64_t kStall = 5000000;
// A thread that is woken needs 10 to 50 us to come; one that waits for a processor itself must not
// keep the others from theirs.
const int64_t kGivingWay = 100000;
const uint32_t kAnyTicket = ~0U;

int64_t nanoseconds() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * kSecond + time.tv_nsec;
}

// Tickets that share a bit are 32 apart: one that is woken in vain sleeps on.
uint32_t bitOf(uint32_t ticket) { return 1U << (ticket % 32); }

void sleepWhile(std::atomic<uint32_t>& word, uint32_t value, uint32_t bits) {
    syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, nullptr, nullptr, bits);
}

void wake(std::atomic<uint32_t>& word, uint32_t bits, int count) {
    syscall(SYS_futex, &word, FUTEX_WAKE_BITSET_PRIVATE, count, nullptr, nullptr, bits);
}

}  // namespace

[[gnu::cold, gnu::noinline]] void FairMutex::wait() {
    if (pass()) {
        return;
    }
    const int64_t arrival = nanoseconds();
    const uint32_t ticket = m_tickets.fetch_add(1);
    const uint32_t place = ticket - m_first + 1;
    standInLine(ticket);
    takeAsFirst(ticket, arrival + place * kPassing);
    callNext(ticket);
}

bool FairMutex::pass() {
    int64_t arrival = 0;
    uint32_t state = m_state.load(std::memory_order_relaxed);
    while ((state & kLocked) == 0) {
        if ((state & kClaimed) != 0 && arrival == 0) {
            arrival = nanoseconds();
        }
        if ((state & kClaimed) != 0 && nanoseconds() - arrival < kGivingWay) {
            sched_yield();
            state = m_state.load(std::memory_order_relaxed);
        } else if (m_state.compare_exchange_weak(state, (state & ~kClaimed) | kLocked,
                                                 std::memory_order_acquire,
                                                 std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

void FairMutex::standInLine(uint32_t ticket) {
    for (uint32_t first = m_first; first != ticket; first = m_first) {
        sleepWhile(m_first, first, bitOf(ticket));
    }
}

void FairMutex::takeAsFirst(uint32_t ticket, int64_t due) {
    int64_t turnSeen = INT64_MAX;
    uint32_t state = m_state.load(std::memory_order_relaxed);
    for (;;) {
        const int64_t now = nanoseconds();
        if ((state & kAsleep) == 0) {  // not the turn any more that was slept through
            if (now - turnSeen >= kStall) {
                m_favoured = m_tickets - ticket;
            }
            turnSeen = now;
        }
        if ((state & kLocked) == 0) {
            const uint32_t taken = m_favoured > 1 ? kLocked | kClaimed : kLocked;
            if (m_state.compare_exchange_weak(state, taken, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                m_favoured -= m_favoured > 0 ? 1 : 0;
                return;
            }
            continue;
        }
        const bool claims = now >= due || m_favoured > 0;
        const uint32_t asleep = kLocked | kAsleep | (claims ? kClaimed : 0);
        if (m_state.compare_exchange_weak(state, asleep, std::memory_order_relaxed)) {
            sleepWhile(m_state, asleep, kAnyTicket);
            state = m_state.load(std::memory_order_relaxed);
        }
    }
}

void FairMutex::callNext(uint32_t ticket) {
    m_first = ticket + 1;
    if (m_tickets != ticket + 1) {
        wake(m_first, bitOf(ticket + 1), INT32_MAX);
    }
}

[[gnu::cold, gnu::noinline]] void FairMutex::release() {
    if ((m_state.fetch_and(~(kLocked | kAsleep), std::memory_order_release) & kAsleep) != 0) {
        wake(m_state, kAnyTicket, 1);
    }
}

}  // namespace Quorvel
