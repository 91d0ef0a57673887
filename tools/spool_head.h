#ifndef QUORVEL_SPOOL_HEAD_H
#define QUORVEL_SPOOL_HEAD_H

#include <endian.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <array>
#include <bitset>

#include "request_format.h"

namespace Quorvel {

const size_t kLengthSize = sizeof(uint32_t);
const size_t kHeadSize = kLengthSize + kPrefixLength;
const size_t kMaxRequest = INT_MAX;  // the library sends nothing longer

/// What every record begins with: its length and, in host order, the request's header (in two
/// halves) and the length of the name.
struct SpoolHead {
    SpoolHead() = default;
    explicit SpoolHead(const char* bytes) { read(bytes); }

    void read(const char* bytes) {
        length = load<uint32_t>(bytes);
        front = be64toh(load<uint64_t>(bytes + kLengthSize));
        back = be64toh(load<uint64_t>(bytes + kLengthSize + sizeof(front)));
        nameLength = be16toh(load<uint16_t>(bytes + kLengthSize + kHeaderLength));
    }

    /// Where the record at `position` ends; 0 when its length and header do not agree.
    uint64_t endFrom(uint64_t position) const {
        const bool agrees = (frontFault(length) | backFault(length)) == 0 &&
                            length >= kPrefixLength && length <= kMaxRequest &&
                            nameLength <= length - kPrefixLength;
        return agrees ? position + kLengthSize + length : 0;
    }

    /// The lengths that the request may have when one of the fields below is damaged.
    std::array<uint32_t, 3> announcedLengths() const {
        return {length, static_cast<uint32_t>(kHeaderLength + static_cast<uint16_t>(front >> 32)),
                static_cast<uint32_t>(kHeaderLength + static_cast<uint32_t>(back))};
    }

    /// Whether one bit at most keeps length and header from agreeing on a request of `size` bytes.
    bool nearlyAgreesOn(uint32_t size) const {
        const size_t wrongBits = std::bitset<64>(frontFault(size)).count() +
                                 std::bitset<64>(backFault(size)).count() +
                                 std::bitset<64>(length ^ size).count();
        return wrongBits <= 1 && size >= kPrefixLength && size <= kMaxRequest;
    }

    /// The wrong bits in command, log type, short body's length, version and flag.
    uint64_t frontFault(uint32_t size) const {
        const uint64_t body = size - kHeaderLength;
        const uint64_t command = (front >> 58 & 1) != 0 ? kBinaryCommand : kTextCommand;
        const uint64_t form = body <= kMaxShortBody ? body << 32 | kShortForm : kLongForm;
        const uint64_t right =
            command << 56 | uint64_t{kLogTypeMark} << 48 | kProtocolVersion << 16 | form;
        const uint64_t anyLogType = uint64_t{kLogTypeMark - 1} << 48;
        return (front ^ right) & ~anyLogType;
    }

    /// The wrong bits in the long body's length, behind the time stamp.
    uint32_t backFault(uint32_t size) const {
        const auto body = static_cast<uint32_t>(size - kHeaderLength);
        return static_cast<uint32_t>(back) ^ (body <= kMaxShortBody ? 0 : body);
    }

    uint8_t command() const { return static_cast<uint8_t>(front >> 56); }
    uint8_t logType() const { return static_cast<uint8_t>(front >> 48) & ~kLogTypeMark; }
    uint32_t timestamp() const { return static_cast<uint32_t>(back >> 32); }

    template <class Integer>
    static Integer load(const char* bytes) {
        Integer value;
        memcpy(&value, bytes, sizeof(value));
        return value;
    }

    uint32_t length = 0;
    uint64_t front = 0;
    uint64_t back = 0;
    uint16_t nameLength = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_SPOOL_HEAD_H
