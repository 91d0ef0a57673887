// The requests of a stream are the same however it was split into reads: the input's first byte is
// the length of the pieces, the rest the stream.
#include <vector>

#include "fuzzing.h"
#include "request_decoder.h"

namespace Quorvel {
namespace {

/// The requests and, as the last, the error that ends the stream.
std::vector<std::string> decode(std::string_view stream, size_t pieceLength) {
    std::vector<std::string> decoded;
    RequestDecoder decoder;
    size_t decodedLength = 0;
    for (size_t fed = 0; fed < stream.size() && decoder.error().empty();) {
        const std::string_view piece = stream.substr(fed, pieceLength);
        fed += piece.size();
        decoder.feed(piece.data(), piece.size());
        RequestView request;
        while (decoder.next(request) == RequestDecoder::Status::kRequest) {
            require(request.bytes == stream.substr(decodedLength, request.bytes.size()));
            decodedLength += request.bytes.size();
            require(request.application.size() + request.body.size() + kPrefixLength ==
                    request.bytes.size());
            decoded.emplace_back(request.bytes);
        }
        require(!decoder.error().empty() || decoder.pending() == fed - decodedLength);
    }
    decoded.emplace_back(decoder.error());
    return decoded;
}

}  // namespace
}  // namespace Quorvel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Quorvel;
    if (size == 0) {
        return 0;
    }
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    require(decode(stream, stream.size()) == decode(stream, size_t{data[0]} + 1));
    return 0;
}
