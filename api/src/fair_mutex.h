#ifndef QVAPI_FAIR_MUTEX_H
#define QVAPI_FAIR_MUTEX_H

#include <stdint.h>

#include <atomic>

namespace Quorvel {

/// A mutex that serves its waiters in the order of their coming. While it is free newcomers may
/// pass them, which spares a switch of threads for each turn, until the first in line has waited
/// for 1.5 ms for each place that it had in the line; and once it saw a turn of 5 ms and more, all
/// that stood in line go first. Newcomers give way to it for 0.1 ms: it may lack a processor.
/// Waits on futexes (futex(2)), which are no cancellation points, and allocates nothing.
class FairMutex {
 public:
    void lock() {
        uint32_t state = 0;
        if (!m_state.compare_exchange_strong(state, kLocked, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
            wait();
        }
    }
    void unlock() {
        uint32_t state = kLocked;
        if (!m_state.compare_exchange_strong(state, 0, std::memory_order_release,
                                             std::memory_order_relaxed)) {
            release();
        }
    }

 private:
    static constexpr uint32_t kLocked = 1;
    static constexpr uint32_t kAsleep = 2;   ///< the first in line is to be woken
    static constexpr uint32_t kClaimed = 4;  ///< newcomers give way

    void wait();
    bool pass();
    void standInLine(uint32_t ticket);
    void takeAsFirst(uint32_t ticket, int64_t due);
    void callNext(uint32_t ticket);
    void release();

    std::atomic<uint32_t> m_state{0};
    std::atomic<uint32_t> m_tickets{0};  ///< given out
    std::atomic<uint32_t> m_first{0};    ///< the ticket that is first in line
    /// How many from the first on go before newcomers, since a turn was long. Only the first in
    /// line uses it.
    uint32_t m_favoured = 0;
};

}  // namespace Quorvel

#endif  // QVAPI_FAIR_MUTEX_H
