#include "record_line.h"

#include <stdio.h>
#include <time.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "record_fields.h"

namespace Quorvel {
namespace {

using Json = nlohmann::ordered_json;

bool isUtf8(const std::string& bytes) {
    try {
        Json(bytes).dump();
        return true;
    } catch (const Json::type_error&) {
        return false;
    }
}

std::string toBase64(const std::string& bytes) {
    static const char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    uint32_t bits = 0;
    unsigned int count = 0;
    for (const unsigned char byte : bytes) {
        bits = bits << 8 | byte;
        for (count += 8; count >= 6; count -= 6) {
            text += kDigits[bits >> (count - 6) & 0x3F];
        }
    }
    if (count > 0) {
        text += kDigits[bits << (6 - count) & 0x3F];
    }
    text.resize((text.size() + 3) / 4 * 4, '=');
    return text;
}

void addText(Json& object, const std::string& key, const std::string& bytes) {
    if (isUtf8(bytes)) {
        object[key] = bytes;
    } else {
        object[key] = toBase64(bytes);
        object[key + "Encoding"] = "base64";
    }
}

std::string localTime(time_t seconds) {
    char text[sizeof("YYYY-MM-DD HH:MM:SS")];
    tm parts;
    strftime(text, sizeof(text), "%F %T", localtime_r(&seconds, &parts));
    return text;
}

/// Whether a non-ASCII byte of UTF-8 text belongs to one of the control characters C2 80 to C2 9F.
bool isInControlCharacter(const std::string& text, size_t i) {
    const size_t first = text[i] == '\xC2' ? i : i - 1;
    return text[first] == '\xC2' && static_cast<unsigned char>(text[first + 1]) < 0xA0;
}

}  // namespace

std::string escapeForTerminal(const std::string& text) {
    const bool utf8 = isUtf8(text);
    std::string escaped;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool plainAscii = byte >= 0x20 && byte < 0x7F && byte != '\\';
        if (plainAscii || (byte >= 0x80 && utf8 && !isInControlCharacter(text, i))) {
            escaped += text[i];
        } else {
            char code[sizeof("\\xNN")];
            snprintf(code, sizeof(code), "\\x%02X", byte);
            escaped += code;
        }
    }
    return escaped;
}

std::string readableLine(Transport transport, const Request& request) {
    const bool binary = request.command == 6;
    const Json fields = binary ? recordFields(request) : Json();
    return localTime(request.timestamp) + ' ' + transportName(transport) + ' ' +
           escapeForTerminal(request.application) + " type " + std::to_string(request.logType) +
           (binary ? " binary: " : " text: ") +
           (fields.empty() ? escapeForTerminal(request.body) : fields.dump()) + '\n';
}

std::string jsonLine(Transport transport, const Request& request, bool onlyAscii) {
    Json object;
    object["transport"] = transportName(transport);
    addText(object, "application", request.application);
    object["command"] = request.command;
    object["logType"] = request.logType;
    object["timestamp"] = request.timestamp;
    addText(object, "body", request.body);
    if (Json fields = recordFields(request); !fields.empty()) {
        object["fields"] = std::move(fields);
    }
    return object.dump(-1, ' ', onlyAscii) + '\n';
}

}  // namespace Quorvel
