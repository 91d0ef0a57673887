#ifndef QUORVEL_ENDPOINT_H
#define QUORVEL_ENDPOINT_H

#include <sys/types.h>

#include <string>

#include "descriptor.h"
#include "transport.h"

namespace Quorvel {

/// One of the agent's endpoints, served by this process from construction to destruction. The
/// socket does not block. Throws when another process serves the endpoint, or on any other failure.
class Endpoint {
 public:
    /// @param socketMode permissions of the socket file; only for Transport::kUnix.
    Endpoint(Transport transport, mode_t socketMode);
    /// Removes the socket file, unless another has taken its place.
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    Transport transport() const { return m_transport; }
    int fd() const { return m_socket.get(); }
    /// The transport and the address, for messages.
    std::string name() const;

 private:
    void openUnix(mode_t socketMode);
    void makeDirectory(const std::string& path) const;
    void openLoopback(int type);
    void removeStaleFile() const;
    void listenForConnections() const;
    [[noreturn]] void fail(const std::string& what) const;
    [[noreturn]] void failWithErrno(const std::string& what) const;

    Transport m_transport;
    Descriptor m_socket;
    ino_t m_inode = 0;  // of the socket file
};

}  // namespace Quorvel

#endif  // QUORVEL_ENDPOINT_H
