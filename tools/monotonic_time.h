#ifndef QUORVEL_MONOTONIC_TIME_H
#define QUORVEL_MONOTONIC_TIME_H

#include <stdint.h>
#include <time.h>

namespace Quorvel {

/// Async-signal-safe.
inline int64_t monotonicMilliseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

}  // namespace Quorvel

#endif  // QUORVEL_MONOTONIC_TIME_H
