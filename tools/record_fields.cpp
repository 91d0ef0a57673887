#include "record_fields.h"

#include <algorithm>

namespace Quorvel {
namespace {

const size_t kEscapeLength = 3;

/// The byte that an escape of CLogger::encode() at the text's start stands for; -1 for no escape.
int escapedByte(std::string_view text) {
    static const char* const kEscapes[] = {"%00", "%09", "%0A", "%0D", "%25", "%26", "%3D"};
    static const char kBytes[] = "\0\t\n\r%&=";
    const auto* const escape =
        std::find(std::begin(kEscapes), std::end(kEscapes), text.substr(0, kEscapeLength));
    return escape == std::end(kEscapes) ? -1 : kBytes[escape - std::begin(kEscapes)];
}

}  // namespace

bool RecordFields::split(std::string_view text) {
    m_fields.clear();
    if (text.find('=') == std::string_view::npos) {
        return false;
    }
    m_unescaped.clear();
    m_unescaped.reserve(text.size());  // so that views of it stay good
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find('&', start), text.size());
        const std::string_view part = text.substr(start, end - start);
        const size_t equals = part.find('=');
        const bool isPair = equals != std::string_view::npos;
        if ((!isPair && start > 0) || m_fields.size() == kMaxFields) {
            return false;
        }
        m_fields.emplace_back(isPair ? unescape(part.substr(0, equals)) : "data",
                              unescape(isPair ? part.substr(equals + 1) : part));
        start = end + 1;
    }
    return !hasKeyTwice();
}

std::string_view RecordFields::unescape(std::string_view text) {
    size_t percent = text.find('%');
    if (percent == std::string_view::npos) {
        return text;
    }
    const size_t begin = m_unescaped.size();
    for (size_t i = 0; i < text.size();) {
        percent = std::min(text.find('%', i), text.size());
        m_unescaped += text.substr(i, percent - i);
        i = percent;
        if (i < text.size()) {
            const int byte = escapedByte(text.substr(i));
            m_unescaped += byte < 0 ? '%' : static_cast<char>(byte);
            i += byte < 0 ? 1 : kEscapeLength;
        }
    }
    return std::string_view(m_unescaped).substr(begin);
}

bool RecordFields::hasKeyTwice() {
    m_keys.clear();
    for (const auto& [key, value] : m_fields) {
        m_keys.push_back(key);
    }
    std::sort(m_keys.begin(), m_keys.end());
    return std::adjacent_find(m_keys.begin(), m_keys.end()) != m_keys.end();
}

}  // namespace Quorvel
