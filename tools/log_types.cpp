#include "log_types.h"

#include <CLI/Error.hpp>
#include <algorithm>
#include <charconv>

namespace Quorvel {
namespace {

/// @return whether the text is the decimal number of a log type, stored in `number`.
bool parseNumber(const char* begin, const char* end, int& number) {
    const auto parsed = std::from_chars(begin, end, number);
    return parsed.ec == std::errc() && parsed.ptr == end && number >= 0 && number <= kMaxLogType;
}

}  // namespace

LogTypes parseLogTypes(const std::string& option, const std::string& value) {
    LogTypes types;
    if (value == "all") {
        return types;
    }
    const char* const end = value.data() + value.size();
    const char* const dash = std::find(value.data(), end, '-');
    const char* const last = dash == end ? value.data() : dash + 1;
    if (!parseNumber(value.data(), dash, types.first) || !parseNumber(last, end, types.last) ||
        types.first > types.last) {
        throw CLI::ValidationError(option,
                                   "neither \"all\" nor a log type of 0 to 127 nor a range "
                                   "like 5-9: " +
                                       value);
    }
    return types;
}

}  // namespace Quorvel
