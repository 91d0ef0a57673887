#include "listener.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "monotonic_time.h"
#include "stop_signals.h"

namespace Quorvel {
namespace {

const size_t kReadSize = 256 << 10;  // also more than any datagram
const int kDatagramsPerRound = 256;
const int64_t kAcceptRetry = 1000;
const size_t kMaxPending = 256 << 20;

}  // namespace

Listener::Listener(const ListenerOptions& options, Sink sink)
    : m_options(options),
      m_sink(std::move(sink)),
      m_now(monotonicMilliseconds()),
      m_input(kReadSize) {
    for (const Transport transport : options.transports) {
        m_endpoints.emplace_back(transport, options.socketMode);
    }
    for (const Endpoint& endpoint : m_endpoints) {
        std::cerr << "qvctl: listening on " << endpoint.name() << '\n';
    }
}

void Listener::serve(int64_t milliseconds) {
    serveReady(static_cast<int>(waitTime(milliseconds)));
    endIdle();
}

void Listener::drain() {
    m_draining = true;
    for (const Endpoint& endpoint : m_endpoints) {
        if (endpoint.transport() == Transport::kUnix) {
            shutdown(endpoint.fd(), SHUT_RD);  // refuses whoever did not connect yet
            acceptConnections(endpoint);
        }
    }
    for (const Connection& connection : m_connections) {
        if (connection.transport == Transport::kUnix) {
            shutdown(connection.socket.get(), SHUT_RD);  // what it holds can still be read
        }
    }
    while (!m_done && !stopIsOverdue() && serveReady(0)) {
    }
}

int64_t Listener::waitTime(int64_t milliseconds) const {
    const auto limit = [&milliseconds](int64_t other) {
        milliseconds = milliseconds < 0 ? other : std::min(milliseconds, other);
    };
    if (m_now < m_nextAccept) {
        limit(m_nextAccept - m_now);
    }
    if (m_options.idleSeconds > 0 && !m_connections.empty()) {
        const int64_t end = m_connections.front().lastInput + m_options.idleSeconds * 1000;
        limit(std::max<int64_t>(end - m_now, 0));
    }
    return std::min<int64_t>(milliseconds, INT32_MAX);
}

/// Standard output (for its reader's end), the endpoints, the connections.
std::vector<pollfd> Listener::pollSet() const {
    const short events = m_options.stalled && !m_draining ? 0 : POLLIN;
    std::vector<pollfd> polled{{STDOUT_FILENO, 0, 0}};
    for (const Endpoint& endpoint : m_endpoints) {
        const bool waits = m_now < m_nextAccept && endpoint.transport() != Transport::kUdp;
        polled.push_back({waits ? -1 : endpoint.fd(), events, 0});
    }
    for (const Connection& connection : m_connections) {
        polled.push_back({connection.socket.get(), events, 0});
    }
    return polled;
}

/// @return whether anything was read or accepted.
bool Listener::serveReady(int milliseconds) {
    std::vector<pollfd> polled = pollSet();
    const int ready = poll(polled.data(), polled.size(), milliseconds);
    m_now = monotonicMilliseconds();
    if (ready <= 0) {
        return false;
    }
    if (polled.front().revents != 0) {
        throw std::runtime_error("standard output was closed");
    }
    bool progress = false;
    const auto firstConnection =
        polled.begin() + 1 + static_cast<std::ptrdiff_t>(m_endpoints.size());
    auto next = m_connections.begin();
    for (auto entry = firstConnection; entry != polled.end(); ++entry) {
        const auto connection = next++;
        progress = (entry->revents != 0 && read(connection) != Input::kNone) || progress;
    }
    auto entry = polled.begin() + 1;
    for (const Endpoint& endpoint : m_endpoints) {
        if (entry++->revents != 0) {
            progress = (endpoint.transport() == Transport::kUdp ? receiveDatagrams(endpoint)
                                                                : acceptConnections(endpoint)) ||
                       progress;
        }
    }
    return progress;
}

bool Listener::receiveDatagrams(const Endpoint& endpoint) {
    int count = 0;
    for (; count < kDatagramsPerRound && !m_done; ++count) {
        const ssize_t length = recv(endpoint.fd(), m_input.data(), m_input.size(), 0);
        if (length < 0) {
            break;
        }
        RequestView request;
        std::string error;
        if (decodeRequest({m_input.data(), static_cast<size_t>(length)}, request, error)) {
            m_done = !m_sink(endpoint.transport(), request);
        } else {
            ++m_malformed;
            std::cerr << "qvctl: udp datagram refused: " << error << '\n';
        }
    }
    return count > 0;
}

bool Listener::acceptConnections(const Endpoint& endpoint) {
    int count = 0;
    while (count < SOMAXCONN) {
        Descriptor socket(accept4(endpoint.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.get() >= 0) {
            ++count;
            m_shortage = false;
            m_connections.push_back(
                {std::move(socket), endpoint.transport(), ++m_connectionNumber, m_now, {}});
        } else if (errno != ECONNABORTED && errno != EINTR && !makeRoom(endpoint)) {
            break;
        }
    }
    return count > 0;
}

/// Out of descriptors, the longest idle connection makes room for a new one. Without any, or out of
/// memory, new ones wait in the backlog.
/// @return whether a connection may be had now.
bool Listener::makeRoom(const Endpoint& endpoint) {
    const int error = errno;
    if (error == EAGAIN || error == EINVAL) {
        return false;
    }
    if ((error == EMFILE || error == ENFILE) && !m_connections.empty()) {
        // Those with something to read are not idle; reading puts them at the end.
        auto input = Input::kSome;
        for (size_t i = m_connections.size(); i > 0 && input == Input::kSome; --i) {
            input = read(m_connections.begin());
        }
        if (input != Input::kEnded) {
            end(m_connections.begin(), "the longest idle one gives way to a new one");
        }
        return true;
    }
    if (!m_shortage) {
        std::cerr << "qvctl: " << endpoint.name()
                  << ": new connections have to wait: " << strerror(error) << '\n';
    }
    m_shortage = true;
    m_nextAccept = m_now + kAcceptRetry;
    return false;
}

Listener::Input Listener::read(Connections::iterator connection) {
    const ssize_t length =
        m_done ? 0 : recv(connection->socket.get(), m_input.data(), m_input.size(), 0);
    if (m_done || (length < 0 && (errno == EAGAIN || errno == EINTR))) {
        return Input::kNone;
    }
    RequestDecoder& decoder = connection->decoder;
    if (length <= 0) {
        end(connection, decoder.pending() > 0 ? "ended inside a request" : "");
        return Input::kEnded;
    }
    connection->lastInput = m_now;
    m_connections.splice(m_connections.end(), m_connections, connection);
    m_pending -= decoder.pending();
    decoder.feed(m_input.data(), static_cast<size_t>(length));
    decode(decoder, connection->transport);
    m_pending += decoder.pending();
    if (!decoder.error().empty() || m_pending > kMaxPending) {
        end(connection, !decoder.error().empty()
                            ? decoder.error()
                            : "requests that are not whole yet take more than " +
                                  std::to_string(kMaxPending) + " bytes");
        return Input::kEnded;
    }
    return Input::kSome;
}

void Listener::decode(RequestDecoder& decoder, Transport transport) {
    RequestView request;
    while (!m_done && decoder.next(request) == RequestDecoder::Status::kRequest) {
        m_done = !m_sink(transport, request);
    }
}

void Listener::end(Connections::iterator connection, const std::string& reason) {
    const size_t unread = connection->decoder.pending();
    m_pending -= unread;
    m_malformed += unread > 0 ? 1 : 0;
    if (!reason.empty()) {
        std::cerr << "qvctl: " << transportName(connection->transport) << " connection "
                  << connection->number << " closed: " << reason << '\n';
    }
    m_connections.erase(connection);
}

void Listener::endIdle() {
    const int64_t limit = m_options.idleSeconds * 1000;
    while (limit > 0 && !m_connections.empty() &&
           m_now - m_connections.front().lastInput >= limit) {
        end(m_connections.begin(), "idle");
    }
}

}  // namespace Quorvel
