#include "module_text.h"

#include <stdint.h>
#include <string.h>

#include <charconv>
#include <string_view>
#include <tuple>

namespace Quorvel {
namespace {

template <typename Value>
struct Field {
    std::string_view key;
    Value ModuleText::*value;
};

constexpr auto kFields = std::make_tuple(
    Field<int>{"typeid=", &ModuleText::typeId}, Field<int>{"&time=", &ModuleText::time},
    Field<int>{"&logid=2000000000&mid=", &ModuleText::mid}, Field<int>{"&sid=", &ModuleText::sid},
    Field<int>{"&ifid=", &ModuleText::ifid}, Field<in_addr_t>{"&fip=", &ModuleText::fip},
    Field<in_addr_t>{"&mip=", &ModuleText::mip}, Field<in_addr_t>{"&sip=", &ModuleText::sip},
    Field<int>{"&result=", &ModuleText::result}, Field<int>{"&retval=", &ModuleText::retval},
    Field<int>{"&cnt=", &ModuleText::count}, Field<int>{"&totaldelay=", &ModuleText::totalDelay},
    Field<int>{"&maxdelay=", &ModuleText::delay}, Field<int>{"&mindelay=", &ModuleText::delay},
    Field<int>{"&avgdelay=", &ModuleText::delay}, Field<int>{"&reqLen=", &ModuleText::totalReqLen},
    Field<int>{"&rspLen=", &ModuleText::totalRspLen});

constexpr size_t longest(const Field<int>& field) {
    return field.key.size() + std::string_view("-2147483648").size();
}
constexpr size_t longest(const Field<in_addr_t>& field) {
    return field.key.size() + std::string_view("255.255.255.255").size();
}

static_assert(std::apply([](const auto&... field) { return (longest(field) + ...); }, kFields) <=
                  kModuleTextSize,
              "every text module record fits into its room");

// What is written always fits: no end is checked.
char* append(char* end, int value) { return std::to_chars(end, end + 11, value).ptr; }

char* append(char* end, in_addr_t address) {
    uint8_t octets[4];
    memcpy(octets, &address, sizeof(octets));
    end = append(end, int{octets[0]});
    for (size_t i = 1; i < sizeof(octets); ++i) {
        *end++ = '.';
        end = append(end, int{octets[i]});
    }
    return end;
}

template <typename Value>
char* append(char* end, const Field<Value>& field, const ModuleText& values) {
    memcpy(end, field.key.data(), field.key.size());
    return append(end + field.key.size(), values.*field.value);
}

}  // namespace

size_t formatModuleText(const ModuleText& values, char (&text)[kModuleTextSize]) {
    char* end = text;
    std::apply([&](const auto&... field) { ((end = append(end, field, values)), ...); }, kFields);
    return static_cast<size_t>(end - text);
}

}  // namespace Quorvel
