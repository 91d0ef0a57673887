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

/// A request as the wire carries it, framed without the library's help.
inline std::string requestBytes(const std::string& name, const std::string& body, int logType = 0,
                                int command = 3, uint32_t timestamp = 1400000000) {
    const std::string rest = bigEndian(name.size(), 2) + name + body;
    const bool isShort = rest.size() <= 30720;
    return bigEndian(command, 1) + bigEndian(logType | 0x80, 1) +
           bigEndian(isShort ? rest.size() : 0, 2) + bigEndian(isShort ? 0x20001 : 0x20009, 4) +
           bigEndian(timestamp, 4) + bigEndian(isShort ? 0 : rest.size(), 4) + rest;
}

#endif  // QUORVEL_REQUEST_BYTES_H
