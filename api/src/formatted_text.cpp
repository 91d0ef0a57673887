#include "formatted_text.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace Quorvel {
namespace {

const char kPrefix[] = "_msg=";
const size_t kPrefixLength = sizeof(kPrefix) - 1;

const size_t kMaxFormat = 2047;
// Besides, each sign may be doubled, all of which but one have a tab, and a NUL follows.
const size_t kFormatSize = kMaxFormat + kMaxFormat / 2 + 1;

// Doubles the signs of a "%%", which does not count, so that the formatter prints them and cannot
// take the text behind a tab for a conversion.
void rewrite(const char* fmt, char (&format)[kFormatSize]) {
    memcpy(format, kPrefix, kPrefixLength);
    char* end = format + kPrefixLength;
    size_t left = kMaxFormat - kPrefixLength;
    const char* pairEnd = fmt;
    for (const char* p = fmt; *p != '\0' && left > 0; ++p) {
        if (*p == '%' && p != fmt) {
            *end++ = '\t';
            if (--left == 0) {
                break;
            }
        }
        if (*p == '%' && p >= pairEnd && p[1] == '%') {
            pairEnd = p + 2;
        }
        if (p < pairEnd) {
            *end++ = '%';
        }
        *end++ = *p;
        --left;
    }
    *end = '\0';
}

}  // namespace

size_t formatText(const char* fmt, va_list arguments, char (&text)[kFormattedTextSize]) {
    char format[kFormatSize];
    rewrite(fmt, format);
    const int length = vsnprintf(text, sizeof(text), format, arguments);
    return length < 0 ? strlen(text) : std::min<size_t>(length, sizeof(text) - 1);
}

}  // namespace Quorvel
