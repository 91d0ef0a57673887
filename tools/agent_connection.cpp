#include "agent_connection.h"

#include <errno.h>
#include <linux/sockios.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <string>

#include "agent_address.h"

namespace Quorvel {
namespace {

const int kSendBuffer = 64 << 10;
const timeval kTimeout = {1, 0};

int connectTo(int fd, Transport transport) {
    if (transport == Transport::kUnix) {
        const sockaddr_un address = agentUnixAddress();
        return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    const sockaddr_in address = agentLoopbackAddress();
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

}  // namespace

AgentConnection::AgentConnection(Transport transport)
    : m_transport(transport),
      m_socket(socket(transport == Transport::kUnix ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC,
                      0)) {
    setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
    setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kTimeout, sizeof(kTimeout));
    if (connectTo(m_socket.get(), transport) != 0) {
        throw AgentGone(std::string("no agent takes records over ") + transportName(transport) +
                        ": " + strerror(errno));
    }
}

void AgentConnection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else if (errno != EINTR && errno != EAGAIN) {
            throwClosed();
        }
    }
}

bool AgentConnection::isRead() const {
    int waiting = 0;
    ioctl(m_socket.get(), SIOCOUTQ, &waiting);
    // An agent that ends drops what it has not read, and the count with it, but closes the
    // connection before: when that is still open now, the count is of what the agent has read.
    pollfd polled = {m_socket.get(), 0, 0};
    poll(&polled, 1, 0);
    if (polled.revents == 0) {
        return waiting == 0;
    }
    char byte;
    const ssize_t received = recv(m_socket.get(), &byte, sizeof(byte), MSG_DONTWAIT);
    if (received == 0 && m_transport == Transport::kUnix) {
        return true;  // closing a Unix socket with anything unread gives an error here instead
    }
    errno = received < 0 ? errno : ECONNRESET;
    throwClosed();
}

void AgentConnection::throwClosed() {
    throw AgentGone(std::string("the agent closed the connection: ") + strerror(errno));
}

}  // namespace Quorvel
