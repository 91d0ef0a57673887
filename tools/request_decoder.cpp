#include "request_decoder.h"

namespace Quorvel {
namespace {

const size_t kHeaderLength = 16;
const size_t kNamePrefixLength = 2;
const size_t kMaxBodyLength = 64 << 20;

uint32_t bigEndian(const char* bytes, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    }
    return value;
}

uint32_t command(const char* data) { return bigEndian(data, 1); }
uint32_t markedLogType(const char* data) { return bigEndian(data + 1, 1); }
uint32_t version(const char* data) { return bigEndian(data + 4, 2); }
uint32_t flag(const char* data) { return bigEndian(data + 6, 2); }
uint32_t timestamp(const char* data) { return bigEndian(data + 8, 4); }
size_t bodyLength(const char* data) {
    return flag(data) == 1 ? bigEndian(data + 2, 2) : bigEndian(data + 12, 4);
}
size_t requestLength(const char* data) { return kHeaderLength + bodyLength(data); }
size_t nameLength(const char* data) { return bigEndian(data + kHeaderLength, kNamePrefixLength); }

std::string describeBody(const char* data) {
    return "body of " + std::to_string(bodyLength(data)) + " bytes";
}

/// What is wrong with a request as far as its first `length` bytes tell; empty for nothing.
std::string findFault(const char* data, size_t length) {
    if (length >= 1 && command(data) != 3 && command(data) != 6) {
        return "command " + std::to_string(command(data)) + " is neither 3 nor 6";
    }
    if (length >= 2 && markedLogType(data) < 0x80) {
        return "log type byte " + std::to_string(markedLogType(data)) + " lacks bit 7";
    }
    if (length >= 6 && version(data) != 2) {
        return "version " + std::to_string(version(data)) + " is not 2";
    }
    if (length >= 8 && flag(data) != 1 && flag(data) != 9) {
        return "flag " + std::to_string(flag(data)) + " is neither 1 nor 9";
    }
    if (length < kHeaderLength) {
        return {};
    }
    if (bodyLength(data) > kMaxBodyLength) {
        return "announced " + describeBody(data) + " is longer than " +
               std::to_string(kMaxBodyLength);
    }
    if (bodyLength(data) < kNamePrefixLength) {
        return describeBody(data) + " has no room for the name's length";
    }
    if (length >= kHeaderLength + kNamePrefixLength &&
        nameLength(data) > bodyLength(data) - kNamePrefixLength) {
        return describeBody(data) + " has no room for a name of " +
               std::to_string(nameLength(data));
    }
    return {};
}

bool isWhole(const char* data, size_t length) {
    return length >= kHeaderLength && length >= requestLength(data);
}

void extract(const char* data, Request& request) {
    const char* name = data + kHeaderLength + kNamePrefixLength;
    const char* body = name + nameLength(data);
    request.command = static_cast<uint8_t>(command(data));
    request.logType = static_cast<uint8_t>(markedLogType(data) & 0x7F);
    request.timestamp = timestamp(data);
    request.application.assign(name, body);
    request.body.assign(body, data + requestLength(data));
}

}  // namespace

void RequestDecoder::feed(const char* data, size_t length) {
    if (!m_error.empty()) {
        return;
    }
    // Moving the rest down only when it is the smaller half keeps the cost linear.
    if (m_begin >= pending()) {
        m_buffer.erase(0, m_begin);
        m_begin = 0;
    }
    m_buffer.append(data, length);
}

RequestDecoder::Status RequestDecoder::next(Request& request) {
    const char* data = m_buffer.data() + m_begin;
    m_error = findFault(data, pending());
    if (!m_error.empty()) {
        return Status::kMalformed;
    }
    if (!isWhole(data, pending())) {
        return Status::kNeedMore;
    }
    extract(data, request);
    m_begin += requestLength(data);
    return Status::kRequest;
}

bool decodeRequest(const char* data, size_t length, Request& request, std::string& error) {
    error = findFault(data, length);
    if (error.empty() && !isWhole(data, length)) {
        error = "ended inside a request";
    }
    if (error.empty() && requestLength(data) != length) {
        error = std::to_string(length - requestLength(data)) + " bytes follow the request";
    }
    if (!error.empty()) {
        return false;
    }
    extract(data, request);
    return true;
}

}  // namespace Quorvel
