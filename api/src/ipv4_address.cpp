#include "ipv4_address.h"

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

namespace Quorvel {
namespace {

// Reads a number of a dotted quad: 0 to 255, without leading zeros, which inet_addr(3) takes for
// octal. @return -1 when there is none.
int readOctet(const char*& text) {
    const char* const start = text;
    int value = 0;
    while (*text >= '0' && *text <= '9' && value < 256) {
        value = value * 10 + (*text++ - '0');
    }
    const bool plain = text - start == 1 || (text - start > 1 && *start != '0');
    return plain && value < 256 ? value : -1;
}

}  // namespace

in_addr_t parseAddress(const std::string& text) {
    const char* p = text.c_str();
    uint8_t octets[4];
    for (size_t i = 0; i < sizeof(octets); ++i) {
        const int octet = readOctet(p);
        const char separator = i + 1 < sizeof(octets) ? '.' : '\0';
        if (octet < 0 || *p++ != separator) {
            return inet_addr(text.c_str());
        }
        octets[i] = static_cast<uint8_t>(octet);
    }
    in_addr_t address = 0;
    memcpy(&address, octets, sizeof(octets));
    return address;
}

}  // namespace Quorvel
