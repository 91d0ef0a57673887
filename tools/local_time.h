#ifndef QUORVEL_LOCAL_TIME_H
#define QUORVEL_LOCAL_TIME_H

#include <time.h>

#include <string>

namespace Quorvel {

/// The local date and time, like 2026-01-31 17:05:00.
inline std::string localTime(time_t seconds) {
    char text[sizeof("YYYY-MM-DD HH:MM:SS")];
    tm parts;
    return {text, strftime(text, sizeof(text), "%F %T", localtime_r(&seconds, &parts))};
}

}  // namespace Quorvel

#endif  // QUORVEL_LOCAL_TIME_H
