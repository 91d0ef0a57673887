#ifndef QVAPIMSG_H
#define QVAPIMSG_H

#include <stdint.h>

namespace Quorvel {

/// The 16 bytes in front of every request to the agent. All fields are big-endian on the wire. The
/// body follows: two bytes of name length (big-endian), the sender's name, the record's own bytes.
struct ApiReqMsgHeader {
    uint8_t cmd;           ///< 3: text body, 6: binary body
    uint8_t logType;       ///< log type 0 to 127, with bit 7 set
    uint16_t len;          ///< flag 1: body length (0 to 30720); flag 9: zero
    uint16_t ver;          ///< protocol version, 2
    uint16_t flag;         ///< 1: short form, 9: long form (body of 30721 bytes and more)
    uint32_t timestamp;    ///< seconds since the epoch, as the caller gave it
    uint32_t reservedInt;  ///< flag 1: zero; flag 9: body length
};

static_assert(sizeof(ApiReqMsgHeader) == 16, "the header is 16 bytes on the wire");

}  // namespace Quorvel

#endif  // QVAPIMSG_H
