#ifndef QUORVEL_AGENT_SOCKETS_H
#define QUORVEL_AGENT_SOCKETS_H

#include "transport.h"

namespace Quorvel {

/// Whether a process of this network namespace receives what is sent to the agent's UDP port. Only
/// sending could show it otherwise, and what is no record would be an error to the agent.
bool isUdpServed();

/// Whether a connection from this network namespace waits for the agent to accept it.
/// @param transport Transport::kUnix or Transport::kTcp.
bool hasUnaccepted(Transport transport);

}  // namespace Quorvel

#endif  // QUORVEL_AGENT_SOCKETS_H
