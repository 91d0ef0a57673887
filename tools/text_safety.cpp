#include "text_safety.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

#include <algorithm>

namespace Quorvel {
namespace {

using Utf8 = rapidjson::UTF8<>;

struct NoOutput {
    void Put(char) const {}
};

struct Range {
    unsigned int first;
    unsigned int last;
};

// Unicode 15: the general categories Cc from U+0080 on, Cf (format), Zl and Zp (separators).
const Range kInvisible[] = {
    {0x80, 0x9F},       {0xAD, 0xAD},       {0x600, 0x605},     {0x61C, 0x61C},
    {0x6DD, 0x6DD},     {0x70F, 0x70F},     {0x890, 0x891},     {0x8E2, 0x8E2},
    {0x180E, 0x180E},   {0x200B, 0x200F},   {0x2028, 0x202E},   {0x2060, 0x2064},
    {0x2066, 0x206F},   {0xFEFF, 0xFEFF},   {0xFFF9, 0xFFFB},   {0x110BD, 0x110BD},
    {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A},
    {0xE0001, 0xE0001}, {0xE0020, 0xE007F},
};

bool isPlainAscii(char c) { return c >= 0x20 && c < 0x7F && c != '\\'; }

bool isInvisible(unsigned int character) {
    const auto* const range =
        std::find_if(std::begin(kInvisible), std::end(kInvisible),
                     [character](const Range& each) { return character <= each.last; });
    return range != std::end(kInvisible) && character >= range->first;
}

template <class Append>
void escapeBytes(const Append& append, std::string_view bytes) {
    static const char kDigits[] = "0123456789ABCDEF";
    for (const unsigned char byte : bytes) {
        const char escape[] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xF]};
        append({escape, sizeof(escape)});
    }
}

template <class Append>
void escape(std::string_view text, const Append& append) {
    rapidjson::MemoryStream input(text.data(), text.size());
    while (input.Tell() < text.size()) {
        const size_t start = input.Tell();
        unsigned int character = 0;
        const bool isCharacter = Utf8::Decode(input, &character);
        // What is no character is escaped a byte at a time, so that all of what follows shows.
        const size_t length = isCharacter ? input.Tell() - start : 1;
        input.src_ = input.begin_ + start + length;
        const std::string_view bytes = text.substr(start, length);
        const bool shows = character < 0x80 ? isPlainAscii(text[start]) : !isInvisible(character);
        if (isCharacter && shows) {
            append(bytes);
        } else {
            escapeBytes(append, bytes);
        }
    }
}

}  // namespace

bool isUtf8(std::string_view bytes) {
    rapidjson::MemoryStream input(bytes.data(), bytes.size());
    NoOutput none;
    bool isValid = true;
    while (isValid && input.Tell() < bytes.size()) {
        isValid = Utf8::Validate(input, none);
    }
    return isValid;
}

std::string escapeForTerminal(std::string_view text) {
    std::string escaped;
    escape(text, [&escaped](std::string_view part) { escaped += part; });
    return escaped;
}

void appendForTerminal(Output& output, std::string_view text) {
    escape(text, [&output](std::string_view part) { output.append(part); });
}

}  // namespace Quorvel
