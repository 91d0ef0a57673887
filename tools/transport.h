#ifndef QUORVEL_TRANSPORT_H
#define QUORVEL_TRANSPORT_H

#include <stdint.h>

#include <algorithm>
#include <iterator>
#include <string>

namespace Quorvel {

/// The ways from the library to the agent, with the numbers that the library gives them.
enum class Transport : int8_t { kUnix = 0, kTcp = 1, kUdp = 2 };

const Transport kTransports[] = {Transport::kUnix, Transport::kTcp, Transport::kUdp};
const char* const kTransportNames[] = {"unix", "tcp", "udp"};

const int kMaxBaseLogType = 110;

/// @return where `name` stands in `names`, which has it.
template <size_t N>
int indexOf(const char* const (&names)[N], const std::string& name) {
    return static_cast<int>(std::find(names, names + N, name) - names);
}

inline const char* transportName(Transport transport) {
    return kTransportNames[static_cast<int8_t>(transport)];
}

/// @return the library's socket type of the transport with this name.
inline int8_t socketType(const std::string& name) {
    return static_cast<int8_t>(indexOf(kTransportNames, name));
}

}  // namespace Quorvel

#endif  // QUORVEL_TRANSPORT_H
