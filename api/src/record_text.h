#ifndef QVAPI_RECORD_TEXT_H
#define QVAPI_RECORD_TEXT_H

#include <netinet/in.h>
#include <stddef.h>

#include <string>

namespace Quorvel {

/// Room for the formatted form's rewritten format and its NUL.
const size_t kFormatSize = 2048;

/// Copies `fmt` behind "_msg=", with a tab before each percent sign but one at its very start. The
/// signs of a conversion that ends in a percent sign ("%%", "% 5%") are doubled, so that the
/// formatter prints them and cannot take the text behind the tab for a conversion.
void rewriteFormat(const char* fmt, char (&area)[kFormatSize]);

/// @return the escape of a byte that may not stand in a value of a key=value text, or null.
const char* escapeOf(char byte);

/// Room for the longest int in decimal.
const size_t kLongestInt = 11;

/// Writes `value` in decimal. @return the end of what is written.
char* appendNumber(char* end, int value);

/// @return what inet_addr(3) makes of `text`; without its cost for four plain decimal numbers.
in_addr_t parseAddress(const std::string& text);

/// The values of a text module record, in the order of its keys.
struct ModuleText {
    int ids[5];              ///< typeid, time, mid, sid, ifid
    in_addr_t addresses[3];  ///< fip, mip, sip
    int results[9];  ///< result, retval, cnt, total, max, min, average delay, reqLen, rspLen
};

/// Room for the longest text module record.
const size_t kModuleTextSize = 512;

/// @return the length of what is written; no NUL follows.
size_t formatModuleText(const ModuleText& values, char (&area)[kModuleTextSize]);

}  // namespace Quorvel

#endif  // QVAPI_RECORD_TEXT_H
