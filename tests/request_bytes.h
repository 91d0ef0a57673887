#ifndef QUORVEL_REQUEST_BYTES_H
#define QUORVEL_REQUEST_BYTES_H

#include <stdint.h>

#include <string>

inline std::string bigEndian(uint64_t value, int size) {
    std::string bytes;
    while (size-- > 0) {
        bytes += static_cast<char>(value >> 8 * size);
    }
    return bytes;
}

inline std::string headerBytes(int command, int logType, int length, int version, int flag,
                               uint32_t timestamp, uint32_t longLength) {
    return bigEndian(command, 1) + bigEndian(logType, 1) + bigEndian(length, 2) +
           bigEndian(version, 2) + bigEndian(flag, 2) + bigEndian(timestamp, 4) +
           bigEndian(longLength, 4);
}

/// A request as the wire carries it, framed without the library's help.
inline std::string requestBytes(const std::string& name, const std::string& body, int logType = 0,
                                int command = 3, uint32_t timestamp = 1400000000) {
    const std::string rest = bigEndian(name.size(), 2) + name + body;
    const bool isShort = rest.size() <= 30720;
    return headerBytes(command, logType | 0x80, isShort ? rest.size() : 0, 2, isShort ? 1 : 9,
                       timestamp, isShort ? 0 : rest.size()) +
           rest;
}

#endif  // QUORVEL_REQUEST_BYTES_H
