#ifndef QUORVEL_AGENT_ADDRESS_H
#define QUORVEL_AGENT_ADDRESS_H

#include <netinet/in.h>
#include <stdint.h>
#include <string.h>
#include <sys/un.h>

namespace Quorvel {

const char kAgentSocketPath[] = "/data/container2host/cqv";
const uint16_t kAgentPort = 20005;  // of TCP and UDP

inline sockaddr_un agentUnixAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(kAgentSocketPath) <= sizeof(address.sun_path), "the path fits");
    memcpy(address.sun_path, kAgentSocketPath, sizeof(kAgentSocketPath));
    return address;
}

inline sockaddr_in agentLoopbackAddress() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(kAgentPort);
    return address;
}

}  // namespace Quorvel

#endif  // QUORVEL_AGENT_ADDRESS_H
