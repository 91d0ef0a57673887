#ifndef QUORVEL_REQUEST_DECODER_H
#define QUORVEL_REQUEST_DECODER_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace Quorvel {

/// One record as it reaches the agent.
struct Request {
    uint8_t command;  ///< 3: text body, 6: binary body
    uint8_t logType;  ///< 0 to 127
    uint32_t timestamp;
    std::string application;
    std::string body;
};

/// Decodes the requests of one stream, however it was split into reads. Holds the bytes that were
/// fed and not decoded yet, never room for bytes that were only announced.
class RequestDecoder {
 public:
    enum class Status { kRequest, kNeedMore, kMalformed };

    void feed(const char* data, size_t length);

    /// Takes the next request off the stream. A malformed one ends the stream for good: what is
    /// fed after it is ignored.
    Status next(Request& request);

    /// What is wrong with the stream; empty while it is well formed.
    const std::string& error() const { return m_error; }

    /// Bytes fed and not yet decoded.
    size_t pending() const { return m_buffer.size() - m_begin; }

 private:
    std::string m_buffer;
    size_t m_begin = 0;
    std::string m_error;
};

/// Decodes the bytes of exactly one request; otherwise returns false and says why in `error`.
bool decodeRequest(const char* data, size_t length, Request& request, std::string& error);

}  // namespace Quorvel

#endif  // QUORVEL_REQUEST_DECODER_H
