#ifndef QUORVEL_REQUEST_DECODER_H
#define QUORVEL_REQUEST_DECODER_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "request_format.h"

namespace Quorvel {

/// One record as it reaches the agent. The texts are the decoded bytes' owner's.
struct RequestView {
    uint8_t command;  ///< kTextCommand or kBinaryCommand
    uint8_t logType;  ///< 0 to 127
    uint32_t timestamp;
    std::string_view application;
    std::string_view body;
    std::string_view bytes;  ///< the whole request as it stands
};

/// Decodes the requests of one stream, however it was split into reads. Keeps a copy of a request
/// that is not whole yet, never room for bytes that were only announced.
class RequestDecoder {
 public:
    enum class Status { kRequest, kNeedMore, kMalformed };

    /// Takes up the stream's next bytes, which must stay until next() returns anything but
    /// kRequest; only then may it be called again.
    void feed(const char* data, size_t length);

    /// Takes the next request off the stream; its texts are good until the next call of feed() or
    /// next(). A malformed one ends the stream for good: what is fed after it is ignored.
    Status next(RequestView& request);

    /// What is wrong with the stream; empty while it is well formed.
    const std::string& error() const { return m_error; }

    /// Bytes fed and not yet decoded.
    size_t pending() const { return m_partial.size() + m_input.size(); }

 private:
    void completePartial();

    std::string m_partial;     // the beginning of a request, behind which m_input goes on
    std::string_view m_input;  // fed and not taken up yet
    bool m_partialIsTaken = false;
    std::string m_error;
};

/// What is wrong with a request as far as its first bytes tell; empty for nothing.
std::string requestFault(std::string_view bytes);

/// The length of the request that begins with `bytes`, as far as it is known: its own once the
/// header is there, the header's before. Only for bytes without a fault.
size_t requestLength(std::string_view bytes);

/// Decodes the bytes of exactly one request; otherwise returns false and says why in `error`.
bool decodeRequest(std::string_view bytes, RequestView& request, std::string& error);

}  // namespace Quorvel

#endif  // QUORVEL_REQUEST_DECODER_H
