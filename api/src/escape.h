#ifndef QVAPI_ESCAPE_H
#define QVAPI_ESCAPE_H

#include <string>

namespace Quorvel {

/// @return `text` with every byte that may not stand in a value of a key=value text as a percent
///   sign and two hexadecimal digits.
std::string escaped(const std::string& text);

}  // namespace Quorvel

#endif  // QVAPI_ESCAPE_H
