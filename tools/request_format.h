#ifndef QUORVEL_REQUEST_FORMAT_H
#define QUORVEL_REQUEST_FORMAT_H

#include <qvapimsg.h>
#include <stddef.h>
#include <stdint.h>

namespace Quorvel {

// What the fields of a request's header hold; qvapimsg.h has their places.

const uint8_t kTextCommand = 3;
const uint8_t kBinaryCommand = 6;
const uint8_t kLogTypeMark = 0x80;
const uint16_t kProtocolVersion = 2;
const uint16_t kShortForm = 1;
const uint16_t kLongForm = 9;
const uint32_t kMaxShortBody = 30720;
const size_t kMaxBodyLength = 64 << 20;  // a limit of this program's own, for its memory

const size_t kHeaderLength = sizeof(ApiReqMsgHeader);
const size_t kNamePrefixLength = sizeof(uint16_t);
const size_t kPrefixLength = kHeaderLength + kNamePrefixLength;

}  // namespace Quorvel

#endif  // QUORVEL_REQUEST_FORMAT_H
