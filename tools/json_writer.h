#ifndef QUORVEL_JSON_WRITER_H
#define QUORVEL_JSON_WRITER_H

#include <rapidjson/writer.h>
#include <stdint.h>

#include <string_view>

#include "output.h"
#include "text_safety.h"

namespace Quorvel {

/// The output as the writers' stream.
class JsonStream {
 public:
    using Ch = char;

    explicit JsonStream(Output& output) : m_output(output) {}
    void Put(char c) { m_output.put(c); }
    void Flush() const {}
    void append(std::string_view text) { m_output.append(text); }
    friend void PutUnsafe(JsonStream& stream, char c) { stream.Put(c); }

 private:
    Output& m_output;
};

void appendBase64(JsonStream& output, std::string_view bytes);
bool isAscii(std::string_view text);
/// Whether an ASCII text cannot stand in a JSON string as it is.
bool needsEscapes(std::string_view text);

/// Writes a JSON object to an Output.
/// @tparam Encoding of the output: rapidjson::UTF8<>, or rapidjson::ASCII<> for all other
///   characters as \uNNNN.
template <class Encoding>
class JsonWriter : public rapidjson::Writer<JsonStream, rapidjson::UTF8<>, Encoding> {
    using Base = rapidjson::Writer<JsonStream, rapidjson::UTF8<>, Encoding>;

 public:
    /// Texts that can stand as they are, which most are, are not looked at byte by byte.
    void text(std::string_view utf8) {
        if (isAscii(utf8) && !needsEscapes(utf8)) {
            raw(utf8);
        } else {
            Base::String(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()));
        }
    }
    void base64(std::string_view bytes) {
        this->Prefix(rapidjson::kStringType);
        this->os_->Put('"');
        appendBase64(*this->os_, bytes);
        this->os_->Put('"');
    }
    /// A key or text that needs no escapes.
    void raw(std::string_view plain) {
        this->Prefix(rapidjson::kStringType);
        this->os_->Put('"');
        this->os_->append(plain);
        this->os_->Put('"');
    }
    void number(const char* key, uint64_t value) {
        raw(key);
        this->Uint64(value);
    }
    /// Bytes that are no UTF-8 stand in base64, with a second key that says so.
    /// @return whether they are text.
    bool bytes(const char* key, const char* encodingKey, std::string_view bytes) {
        raw(key);
        if (isAscii(bytes) || isUtf8(bytes)) {
            text(bytes);
            return true;
        }
        base64(bytes);
        raw(encodingKey);
        raw("base64");
        return false;
    }
};

}  // namespace Quorvel

#endif  // QUORVEL_JSON_WRITER_H
