#include "json_writer.h"

namespace Quorvel {

void appendBase64(JsonStream& output, std::string_view bytes) {
    static const char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    uint32_t bits = 0;
    unsigned int count = 0;
    for (const unsigned char byte : bytes) {
        bits = bits << 8 | byte;
        for (count += 8; count >= 6; count -= 6) {
            output.Put(kDigits[bits >> (count - 6) & 0x3F]);
        }
    }
    if (count > 0) {
        output.Put(kDigits[bits << (6 - count) & 0x3F]);
        output.append(count == 2 ? "==" : "=");
    }
}

// The loops of both are ones that compilers vectorise.
bool isAscii(std::string_view text) {
    unsigned char all = 0;
    for (const unsigned char byte : text) {
        all |= byte;
    }
    return all < 0x80;
}

bool needsEscapes(std::string_view text) {
    unsigned char any = 0;
    for (const unsigned char byte : text) {
        any |= static_cast<unsigned char>(byte < 0x20 || byte == '"' || byte == '\\');
    }
    return any != 0;
}

}  // namespace Quorvel
