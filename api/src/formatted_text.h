#ifndef QVAPI_FORMATTED_TEXT_H
#define QVAPI_FORMATTED_TEXT_H

#include <stdarg.h>
#include <stddef.h>

namespace Quorvel {

/// Room for the text of a formatted base log and its NUL.
const size_t kFormattedTextSize = 30720;

/// Formats the text of a formatted base log: "_msg=" and what vsnprintf(3) makes of `fmt` with a
/// tab before each percent sign but one at its very start, cut at 2047 characters.
/// @return the text's length; when the formatter reports an error, of what it had written by then.
size_t formatText(const char* fmt, va_list arguments, char (&text)[kFormattedTextSize]);

}  // namespace Quorvel

#endif  // QVAPI_FORMATTED_TEXT_H
