#include "request_decoder.h"

#include <endian.h>
#include <string.h>

#include <algorithm>

namespace Quorvel {
namespace {

/// The header and the name's length in the host's byte order; zero where bytes are missing.
struct Prefix {
    explicit Prefix(std::string_view bytes) {
        memcpy(&header, bytes.data(), std::min(bytes.size(), kHeaderLength));
        header.len = be16toh(header.len);
        header.ver = be16toh(header.ver);
        header.flag = be16toh(header.flag);
        header.timestamp = be32toh(header.timestamp);
        header.reservedInt = be32toh(header.reservedInt);
        if (bytes.size() >= kPrefixLength) {
            memcpy(&nameLength, bytes.data() + kHeaderLength, kNamePrefixLength);
            nameLength = be16toh(nameLength);
        }
    }

    size_t bodyLength() const {
        return header.flag == kShortForm ? header.len : header.reservedInt;
    }

    ApiReqMsgHeader header = {};
    uint16_t nameLength = 0;
};

bool isSound(const Prefix& prefix) {
    const ApiReqMsgHeader& header = prefix.header;
    return (header.cmd == kTextCommand || header.cmd == kBinaryCommand) &&
           header.logType >= kLogTypeMark && header.ver == kProtocolVersion &&
           (header.flag == kShortForm || header.flag == kLongForm) &&
           prefix.bodyLength() <= kMaxBodyLength &&
           prefix.bodyLength() >= kNamePrefixLength + prefix.nameLength;
}

std::string describeFault(const Prefix& prefix, size_t length) {
    const ApiReqMsgHeader& header = prefix.header;
    const size_t bodyLength = prefix.bodyLength();
    if (length >= 1 && header.cmd != kTextCommand && header.cmd != kBinaryCommand) {
        return "command " + std::to_string(header.cmd) + " is neither 3 nor 6";
    }
    if (length >= 2 && header.logType < kLogTypeMark) {
        return "log type byte " + std::to_string(header.logType) + " lacks bit 7";
    }
    if (length >= 6 && header.ver != kProtocolVersion) {
        return "version " + std::to_string(header.ver) + " is not 2";
    }
    if (length >= 8 && header.flag != kShortForm && header.flag != kLongForm) {
        return "flag " + std::to_string(header.flag) + " is neither 1 nor 9";
    }
    if (length < kHeaderLength) {
        return {};
    }
    const std::string body = "body of " + std::to_string(bodyLength) + " bytes";
    if (bodyLength > kMaxBodyLength) {
        return "announced " + body + " is longer than " + std::to_string(kMaxBodyLength);
    }
    if (bodyLength < kNamePrefixLength) {
        return body + " has no room for the name's length";
    }
    if (prefix.nameLength > bodyLength - kNamePrefixLength) {
        return body + " has no room for a name of " + std::to_string(prefix.nameLength);
    }
    return {};
}

/// Whether `bytes` begin with a whole request without a fault, which `request` then shows.
bool takeRequest(std::string_view bytes, RequestView& request) {
    const Prefix prefix(bytes);
    const size_t length = kHeaderLength + prefix.bodyLength();
    if (!isSound(prefix) || bytes.size() < length) {
        return false;
    }
    request.command = prefix.header.cmd;
    request.logType = prefix.header.logType & ~kLogTypeMark;
    request.timestamp = prefix.header.timestamp;
    request.bytes = bytes.substr(0, length);
    request.application = request.bytes.substr(kPrefixLength, prefix.nameLength);
    request.body = request.bytes.substr(kPrefixLength + prefix.nameLength);
    return true;
}

}  // namespace

void RequestDecoder::feed(const char* data, size_t length) {
    if (m_error.empty()) {
        m_input = {data, length};
    }
}

RequestDecoder::Status RequestDecoder::next(RequestView& request) {
    if (m_partialIsTaken) {
        m_partial = std::string();
        m_partialIsTaken = false;
    }
    if (!m_partial.empty()) {
        completePartial();
        m_partialIsTaken = takeRequest(m_partial, request);
    } else if (takeRequest(m_input, request)) {
        m_input.remove_prefix(request.bytes.size());
        return Status::kRequest;
    } else {
        m_partial = m_input;
        m_input = {};
    }
    if (m_partialIsTaken) {
        return Status::kRequest;
    }
    m_error = requestFault(m_partial);
    return m_error.empty() ? Status::kNeedMore : Status::kMalformed;
}

void RequestDecoder::completePartial() {
    while (!m_input.empty() && requestFault(m_partial).empty() &&
           m_partial.size() < requestLength(m_partial)) {
        const size_t missing = requestLength(m_partial) - m_partial.size();
        m_partial += m_input.substr(0, missing);
        m_input.remove_prefix(std::min(missing, m_input.size()));
    }
}

std::string requestFault(std::string_view bytes) {
    return describeFault(Prefix(bytes), bytes.size());
}

size_t requestLength(std::string_view bytes) {
    return kHeaderLength + (bytes.size() < kHeaderLength ? 0 : Prefix(bytes).bodyLength());
}

bool decodeRequest(std::string_view bytes, RequestView& request, std::string& error) {
    error = requestFault(bytes);
    if (!error.empty()) {
        return false;
    }
    if (!takeRequest(bytes, request)) {
        error = "ended inside a request";
    } else if (request.bytes.size() < bytes.size()) {
        error = std::to_string(bytes.size() - request.bytes.size()) + " bytes follow the request";
    }
    return error.empty();
}

}  // namespace Quorvel
