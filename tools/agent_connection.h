#ifndef QUORVEL_AGENT_CONNECTION_H
#define QUORVEL_AGENT_CONNECTION_H

#include <stdint.h>

#include <stdexcept>
#include <string_view>

#include "descriptor.h"
#include "transport.h"

namespace Quorvel {

/// No agent takes records, or it closed the connection.
struct AgentGone : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A stream to the agent, of which it is known how much the agent has read. The socket is kept
/// small: about 64 KiB wait in it.
class AgentConnection {
 public:
    /// @param transport Transport::kUnix or Transport::kTcp.
    /// Throws AgentGone when nobody serves the agent's endpoint.
    explicit AgentConnection(Transport transport);

    /// Sends all of it. Throws AgentGone when the agent has closed the connection.
    void send(std::string_view bytes);

    /// Whether the agent has read all that was sent; over TCP, whether its host has acknowledged
    /// it. Throws AgentGone when the agent has closed the connection before.
    bool isRead() const;

 private:
    [[noreturn]] static void throwClosed();

    Transport m_transport;
    Descriptor m_socket;
};

}  // namespace Quorvel

#endif  // QUORVEL_AGENT_CONNECTION_H
