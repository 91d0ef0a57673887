#ifndef QUORVEL_PACE_H
#define QUORVEL_PACE_H

#include <stdint.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "stop_signals.h"

namespace Quorvel {

/// Spreads records over time.
class Pace {
 public:
    /// @param perSecond how many records a second; 0: any number.
    explicit Pace(uint64_t perSecond) : m_perSecond(perSecond) {}

    /// Whether the next record is due.
    bool isDue() const { return m_perSecond == 0 || Clock::now() >= m_due; }

    /// Waits until the next record is due, or a stop is requested.
    void await() const {
        while (!isDue() && !stopRequested()) {
            std::this_thread::sleep_until(std::min(m_due, Clock::now() + kMaxNap));
        }
    }

    /// Counts a record. After a pause the next ones come no faster than otherwise.
    void count() {
        if (m_perSecond != 0) {
            m_due = std::max(m_due, Clock::now() - kMaxNap) +
                    std::chrono::nanoseconds(1000000000 / m_perSecond);
        }
    }

 private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kMaxNap{100};

    const uint64_t m_perSecond;
    Clock::time_point m_due = Clock::now();
};

}  // namespace Quorvel

#endif  // QUORVEL_PACE_H
