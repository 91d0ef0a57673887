#include "stat_text.h"

#include <string.h>

namespace Quorvel {
namespace {

const size_t kMaxText = 1023;

void append(std::string& text, const char* part) {
    text.append(part, strnlen(part, kMaxText - text.size()));
}

}  // namespace

std::string statText(const std::string& data, const std::map<std::string, int>& values) {
    std::string text;
    text.reserve(kMaxText);
    append(text, data.c_str());
    for (const auto& [name, value] : values) {
        append(text, "&");
        append(text, name.c_str());
        append(text, "=");
        append(text, std::to_string(value).c_str());
    }
    return text;
}

}  // namespace Quorvel
