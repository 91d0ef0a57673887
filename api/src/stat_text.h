#ifndef QVAPI_STAT_TEXT_H
#define QVAPI_STAT_TEXT_H

#include <map>
#include <string>

namespace Quorvel {

/// The text of a statistics record: `data` and a pair "&name=value" for each value, each part up to
/// its first NUL, the whole cut at 1023 characters.
std::string statText(const std::string& data, const std::map<std::string, int>& values);

}  // namespace Quorvel

#endif  // QVAPI_STAT_TEXT_H
