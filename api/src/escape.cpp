#include "escape.h"

namespace Quorvel {
namespace {

// @return null for a byte that stands for itself.
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

}  // namespace

std::string escaped(const std::string& text) {
    std::string result;
    for (const char byte : text) {
        const char* const escape = escapeOf(byte);
        escape != nullptr ? result.append(escape) : result.append(1, byte);
    }
    return result;
}

}  // namespace Quorvel
