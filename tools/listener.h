#ifndef QUORVEL_LISTENER_H
#define QUORVEL_LISTENER_H

#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "descriptor.h"
#include "endpoint.h"
#include "request_decoder.h"
#include "transport.h"

namespace Quorvel {

struct ListenerOptions {
    std::vector<Transport> transports;
    mode_t socketMode = 0666;
    int64_t idleSeconds = 0;  ///< a connection that sends nothing for so long is closed; 0: never
    bool stalled = false;     ///< neither accepts nor reads before drain()
};

/// Serves the agent's endpoints. Says on standard error why it closes a connection or refuses a
/// datagram. Requests that are not whole yet take at most 256 MiB over all connections.
class Listener {
 public:
    /// Takes a record that arrived; the listener stops in front of the next once it returns false.
    using Sink = std::function<bool(Transport, const RequestView&)>;

    /// Throws as Endpoint does.
    Listener(const ListenerOptions& options, Sink sink);

    /// Waits until something arrives, a signal comes or the time is over, and reads what is there.
    /// Throws when standard output was closed meanwhile.
    /// @param milliseconds -1: no end.
    void serve(int64_t milliseconds);

    /// Reads what the clients' sockets still hold, and takes nothing new from clients that can be
    /// told so: what those have goes to the fallback file. Ends once stopIsOverdue().
    void drain();

    bool isDone() const { return m_done; }
    uint64_t malformedInputs() const { return m_malformed; }

 private:
    struct Connection {
        Descriptor socket;
        Transport transport;
        uint64_t number;
        int64_t lastInput;  // in milliseconds
        RequestDecoder decoder;
    };
    using Connections = std::list<Connection>;
    enum class Input { kNone, kSome, kEnded };  // with kEnded, the connection is gone

    int64_t waitTime(int64_t milliseconds) const;
    std::vector<pollfd> pollSet() const;
    bool serveReady(int milliseconds);
    bool acceptConnections(const Endpoint& endpoint);
    bool makeRoom(const Endpoint& endpoint);
    bool receiveDatagrams(const Endpoint& endpoint);
    Input read(Connections::iterator connection);
    void decode(RequestDecoder& decoder, Transport transport);
    void end(Connections::iterator connection, const std::string& reason);
    void endIdle();

    const ListenerOptions m_options;
    Sink m_sink;
    std::list<Endpoint> m_endpoints;
    Connections m_connections;  // the longest idle first
    uint64_t m_connectionNumber = 0;
    size_t m_pending = 0;  // bytes of requests that are not whole yet
    uint64_t m_malformed = 0;
    bool m_draining = false;
    bool m_shortage = false;   // reported, and no connection accepted since
    int64_t m_nextAccept = 0;  // in milliseconds
    bool m_done = false;
    int64_t m_now;
    std::vector<char> m_input;
};

}  // namespace Quorvel

#endif  // QUORVEL_LISTENER_H
