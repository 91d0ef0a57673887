#include "record_text.h"

#include <stdio.h>
#include <string.h>

#include <charconv>
#include <string_view>

namespace Quorvel {
namespace {

constexpr std::string_view kIdKeys[] = {
    "typeid=", "&time=", "&logid=2000000000&mid=", "&sid=", "&ifid="};
constexpr std::string_view kAddressKeys[] = {"&fip=", "&mip=", "&sip="};
constexpr std::string_view kResultKeys[] = {
    "&result=",   "&retval=",   "&cnt=",    "&totaldelay=", "&maxdelay=",
    "&mindelay=", "&avgdelay=", "&reqLen=", "&rspLen="};

template <size_t N>
constexpr size_t longestFields(const std::string_view (&keys)[N], size_t longestValue) {
    size_t length = N * longestValue;
    for (const std::string_view key : keys) {
        length += key.size();
    }
    return length;
}

static_assert(kLongestInt == std::string_view("-2147483648").size(), "");
constexpr size_t kLongestAddress = std::string_view("255.255.255.255").size();
static_assert(longestFields(kIdKeys, kLongestInt) + longestFields(kAddressKeys, kLongestAddress) +
                      longestFields(kResultKeys, kLongestInt) <=
                  kModuleTextSize,
              "every text module record fits into its area");

char* appendAddress(char* end, in_addr_t address) {
    uint8_t octets[4];
    memcpy(octets, &address, sizeof(octets));
    for (const uint8_t& octet : octets) {
        if (&octet != octets) {
            *end++ = '.';
        }
        end = appendNumber(end, octet);
    }
    return end;
}

template <size_t N, typename Value>
char* appendFields(char* end, const std::string_view (&keys)[N], const Value (&values)[N],
                   char* (*append)(char*, Value)) {
    for (size_t i = 0; i < N; ++i) {
        end = append(end + keys[i].copy(end, keys[i].size()), values[i]);
    }
    return end;
}

}  // namespace

void rewriteFormat(const char* fmt, char (&area)[kFormatSize]) {
    const size_t limit = kFormatSize - 1;
    size_t length = static_cast<size_t>(snprintf(area, sizeof(area), "_msg="));
    const char* literalEnd = fmt;
    for (const char* p = fmt; *p != '\0' && length < limit; ++p) {
        if (*p != '%') {
            area[length++] = *p;
            continue;
        }
        if (p >= literalEnd) {
            const char* const conversion = p + 1 + strspn(p + 1, "-+ #0'I123456789.*$hlqLjzt");
            literalEnd = *conversion == '%' ? conversion + 1 : p;
        }
        if (p != fmt) {
            area[length++] = '\t';
        }
        const size_t signs = p < literalEnd ? 2 : 1;
        if (length + signs > limit) {
            break;
        }
        memset(area + length, '%', signs);
        length += signs;
    }
    area[length] = '\0';
}

const char* escapeOf(char byte) {
    switch (byte) {
        case '\0':
            return "%00";
        case '\t':
            return "%09";
        case '\n':
            return "%0A";
        case '\r':
            return "%0D";
        case '%':
            return "%25";
        case '&':
            return "%26";
        case '=':
            return "%3D";
        default:
            return nullptr;
    }
}

char* appendNumber(char* end, int value) {
    return std::to_chars(end, end + kLongestInt, value).ptr;
}

size_t formatModuleText(const ModuleText& values, char (&area)[kModuleTextSize]) {
    char* end = appendFields(area, kIdKeys, values.ids, appendNumber);
    end = appendFields(end, kAddressKeys, values.addresses, appendAddress);
    end = appendFields(end, kResultKeys, values.results, appendNumber);
    return static_cast<size_t>(end - area);
}

}  // namespace Quorvel
