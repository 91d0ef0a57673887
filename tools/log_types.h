#ifndef QUORVEL_LOG_TYPES_H
#define QUORVEL_LOG_TYPES_H

#include <string>

namespace Quorvel {

const int kMaxLogType = 127;

/// Log types `first` to `last`.
struct LogTypes {
    int first = 0;
    int last = kMaxLogType;
};

/// The log types that the value of a command line's option or argument names: a number, a range
/// like 5-9, or all. Throws CLI::ValidationError for any other value.
LogTypes parseLogTypes(const std::string& option, const std::string& value);

}  // namespace Quorvel

#endif  // QUORVEL_LOG_TYPES_H
