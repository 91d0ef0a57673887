#ifndef QUORVEL_TEST_AGENT_H
#define QUORVEL_TEST_AGENT_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "request_decoder.h"

namespace Quorvel {

/// Waits until `condition` holds; false when it still does not after a minute.
template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

const sockaddr_un kUnixAddress = {AF_UNIX, "/data/container2host/cqv"};
const sockaddr_in kLoopbackAddress = {AF_INET, htons(20005), {htonl(INADDR_LOOPBACK)}, {}};

/// A socket that serves the agent's endpoint of a logger's socket type: 0 Unix, 1 TCP, 2 UDP.
inline int openEndpoint(int socketType, int backlog = 128) {
    const auto* address = reinterpret_cast<const sockaddr*>(&kLoopbackAddress);
    socklen_t length = sizeof(kLoopbackAddress);
    if (socketType == 0) {
        const std::filesystem::path path = kUnixAddress.sun_path;
        std::filesystem::create_directories(path.parent_path());
        std::filesystem::remove(path);
        address = reinterpret_cast<const sockaddr*>(&kUnixAddress);
        length = sizeof(kUnixAddress);
    }
    const int type = socketType == 2 ? SOCK_DGRAM : SOCK_STREAM;
    const int fd = socket(address->sa_family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(fd, address, length) != 0 || (type == SOCK_STREAM && listen(fd, backlog) != 0)) {
        throw std::system_error(errno, std::generic_category(), "openEndpoint");
    }
    return fd;
}

/// What the agent read from one connection, or, over UDP, between a start and a stop.
struct Conversation {
    int fd;            ///< -1: ended
    bool cut = false;  ///< by the agent; it may have missed whole connections after this one, too
    RequestDecoder decoder = {};
    std::vector<Request> records = {};

    size_t remainder() const { return decoder.pending(); }            ///< bytes of no whole request
    const std::string& malformed() const { return decoder.error(); }  ///< why they are no request
};

/// Stands in for the agent on one endpoint, on a thread of its own, from construction on. What it
/// received outlives cut() and stop(). One thread controls it; any may look at what it received.
class TestAgent {
 public:
    explicit TestAgent(int socketType) : m_type(socketType) { start(); }
    ~TestAgent() { stop(); }

    void start() {
        int fd = openEndpoint(m_type);
        m_type == 2 ? add(fd) : std::swap(fd, m_listener);
        proceed();
    }

    /// Reads and accepts nothing until proceed().
    void pause() {
        m_paused = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    void proceed() {
        m_paused = false;
        m_thread = std::thread([this] { serve(); });
    }

    /// Closes the endpoint and every connection, with what was not read from them.
    void stop() {
        pause();
        endAll();
        closeSocket(m_listener);
    }

    /// Closes every stream connection, with what was not read from it.
    void cut() {
        pause();
        endAll();
        proceed();
    }

    /// In the order in which they were accepted.
    std::vector<Conversation> conversations() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_conversations;
    }

    /// Of all conversations, in their order.
    std::vector<Request> records() const {
        std::vector<Request> all;
        for (const Conversation& heard : conversations()) {
            all.insert(all.end(), heard.records.begin(), heard.records.end());
        }
        return all;
    }

    size_t recordCount() const { return m_recordCount; }
    size_t openConnections() const { return m_openConnections; }

 private:
    void endAll() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        for (Conversation& conversation : m_conversations) {
            conversation.cut |= conversation.fd >= 0 || &conversation == &m_conversations.back();
            end(conversation);
        }
    }

    void serve() {
        while (!m_paused) {
            for (int fd; (fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                add(fd);
            }
            if (!readSome()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }

    bool readSome() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        bool any = false;
        for (Conversation& conversation : m_conversations) {
            any = (conversation.fd >= 0 && read(conversation)) || any;
        }
        return any;
    }

    bool read(Conversation& conversation) {
        const ssize_t size = recv(conversation.fd, m_bytes, sizeof(m_bytes), MSG_DONTWAIT);
        if (size > 0) {
            decode(conversation, static_cast<size_t>(size));
        } else if (size == 0 || errno != EAGAIN) {
            end(conversation);
        }
        return size > 0;
    }

    void decode(Conversation& conversation, size_t size) {
        conversation.decoder.feed(m_bytes, size);
        Request record;
        while (conversation.decoder.next(record) == RequestDecoder::Status::kRequest) {
            conversation.records.push_back(record);
            ++m_recordCount;
        }
        if (m_type == 2 && conversation.remainder() > 0) {
            end(conversation);  // a datagram that is not whole shows at the end
        }
    }

    void add(int fd) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_conversations.push_back({fd});
        ++m_openConnections;
    }

    void end(Conversation& conversation) {
        m_openConnections -= conversation.fd >= 0 ? 1 : 0;
        closeSocket(conversation.fd);
    }

    // Shut down first: a child of the program may hold the socket as well.
    static void closeSocket(int& fd) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
        fd = -1;
    }

    const int m_type;
    int m_listener = -1;
    std::atomic<bool> m_paused{false};
    std::atomic<size_t> m_recordCount{0};
    std::atomic<size_t> m_openConnections{0};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::vector<Conversation> m_conversations;
    char m_bytes[65536];
};

}  // namespace Quorvel

#endif  // QUORVEL_TEST_AGENT_H
