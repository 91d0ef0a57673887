#include "record_text.h"

#include <arpa/inet.h>
#include <string.h>

#include <charconv>
#include <iterator>
#include <string_view>
#include <utility>

namespace Quorvel {
namespace {

const char kFormatPrefix[] = "_msg=";

// Whether printf(3) may find the byte between the percent sign of a conversion and its letter.
bool isModifier(char byte) {
    switch (byte) {
        case '-':
        case '+':
        case ' ':
        case '#':
        case '\'':
        case 'I':
        case '.':
        case '*':
        case '$':
        case 'h':
        case 'l':
        case 'q':
        case 'L':
        case 'j':
        case 'z':
        case 'Z':
        case 't':
        case 'w':
            return true;
        default:
            return byte >= '0' && byte <= '9';
    }
}

// @return where a conversion that begins at `percent` and ends in a percent sign ends; `percent`
// itself when it ends in anything else.
const char* literalPercentEnd(const char* percent) {
    const char* p = percent + 1;
    while (isModifier(*p)) {
        ++p;
    }
    return *p == '%' ? p + 1 : percent;
}

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
    end = appendNumber(end, octets[0]);
    for (size_t i = 1; i < sizeof(octets); ++i) {
        *end++ = '.';
        end = appendNumber(end, octets[i]);
    }
    return end;
}

// Unrolled, so that each key is copied by its constant length.
template <const auto& Keys, typename Value, size_t... I>
char* appendFields(char* end, const Value* values, char* (*append)(char*, Value),
                   std::index_sequence<I...> /*fields*/) {
    ((memcpy(end, Keys[I].data(), Keys[I].size()), end = append(end + Keys[I].size(), values[I])),
     ...);
    return end;
}

template <const auto& Keys, typename Value, size_t N>
char* appendFields(char* end, const Value (&values)[N], char* (*append)(char*, Value)) {
    static_assert(std::size(Keys) == N, "a value for each key");
    return appendFields<Keys>(end, values, append, std::make_index_sequence<N>());
}

// Reads a number of a dotted quad: 0 to 255, without leading zeros, which inet_addr(3) takes for
// octal. @return -1 when there is none.
int readOctet(const char*& text) {
    const char* const start = text;
    int value = 0;
    while (*text >= '0' && *text <= '9' && value < 256) {
        value = value * 10 + (*text++ - '0');
    }
    const bool plain = text - start == 1 || (text - start > 1 && *start != '0');
    return plain && value < 256 ? value : -1;
}

}  // namespace

void rewriteFormat(const char* fmt, char (&area)[kFormatSize]) {
    const size_t limit = kFormatSize - 1;
    size_t length = sizeof(kFormatPrefix) - 1;
    memcpy(area, kFormatPrefix, length);
    const char* literalEnd = fmt;
    for (const char* p = fmt; *p != '\0' && length < limit; ++p) {
        if (*p != '%') {
            area[length++] = *p;
            continue;
        }
        if (p >= literalEnd) {
            literalEnd = literalPercentEnd(p);
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

in_addr_t parseAddress(const std::string& text) {
    const char* p = text.c_str();
    uint8_t octets[4];
    for (size_t i = 0; i < sizeof(octets); ++i) {
        const int octet = readOctet(p);
        const char separator = i + 1 < sizeof(octets) ? '.' : '\0';
        if (octet < 0 || *p++ != separator) {
            return inet_addr(text.c_str());
        }
        octets[i] = static_cast<uint8_t>(octet);
    }
    in_addr_t address = 0;
    memcpy(&address, octets, sizeof(octets));
    return address;
}

size_t formatModuleText(const ModuleText& values, char (&area)[kModuleTextSize]) {
    char* end = appendFields<kIdKeys>(area, values.ids, appendNumber);
    end = appendFields<kAddressKeys>(end, values.addresses, appendAddress);
    end = appendFields<kResultKeys>(end, values.results, appendNumber);
    return static_cast<size_t>(end - area);
}

}  // namespace Quorvel
