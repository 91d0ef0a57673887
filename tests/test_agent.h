#ifndef QUORVEL_TEST_AGENT_H
#define QUORVEL_TEST_AGENT_H

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "agent_address.h"
#include "host_paths.h"
#include "request_decoder.h"

namespace Quorvel {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kIsSanitized = true;
#else
const bool kIsSanitized = false;
#endif

inline std::string contents(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

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

/// A record as it reached the agent, with texts of its own.
struct Request {
    explicit Request(const RequestView& view)
        : command(view.command),
          logType(view.logType),
          timestamp(view.timestamp),
          application(view.application),
          body(view.body) {}

    uint8_t command;
    uint8_t logType;
    uint32_t timestamp;
    std::string application;
    std::string body;
};

/// The record of a whole request.
inline Request decoded(const std::string& bytes) {
    RequestView record = {};
    std::string error;
    EXPECT_TRUE(decodeRequest(bytes, record, error)) << error;
    return Request(record);
}

/// The records of the fallback file, all of which must be whole.
inline std::vector<Request> fallbackRecords() {
    std::ifstream file(kFallbackFile, std::ios::binary);
    std::vector<Request> records;
    for (uint32_t length; file.read(reinterpret_cast<char*>(&length), sizeof(length));) {
        std::string request(length, 0);
        file.read(request.data(), length);
        records.push_back(decoded(request.substr(0, static_cast<size_t>(file.gcount()))));
    }
    EXPECT_EQ(file.gcount(), 0) << "bytes of no record at the file's end";
    return records;
}

const sockaddr_un kUnixAddress = agentUnixAddress();
const sockaddr_in kLoopbackAddress = agentLoopbackAddress();

/// A socket that serves the agent's endpoint of a logger's socket type: 0 Unix, 1 TCP, 2 UDP.
inline int openEndpoint(int socketType) {
    const auto* address = reinterpret_cast<const sockaddr*>(&kLoopbackAddress);
    socklen_t length = sizeof(kLoopbackAddress);
    if (socketType == 0) {
        std::filesystem::create_directories(kAgentDirectory);
        unlink(kUnixAddress.sun_path);
        address = reinterpret_cast<const sockaddr*>(&kUnixAddress);
        length = sizeof(kUnixAddress);
    }
    const int type = socketType == 2 ? SOCK_DGRAM : SOCK_STREAM;
    const int fd = socket(address->sa_family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    EXPECT_EQ(bind(fd, address, length), 0);
    EXPECT_TRUE(type == SOCK_DGRAM || listen(fd, 128) == 0);
    return fd;
}

/// What the agent read from one connection, or, over UDP, between a start and a stop.
struct Conversation {
    int fd;            ///< -1: ended
    bool cut = false;  ///< by the agent; it may have missed whole connections after this one, too
    RequestDecoder decoder = {};
    std::vector<Request> records = {};
};

/// Stands in for the agent on one endpoint, on a thread of its own, from construction on. What it
/// received outlives cut() and stop(). One thread controls it; any may look at what it received.
class TestAgent {
 public:
    explicit TestAgent(int socketType) : m_isStream(socketType != 2), m_type(socketType) {
        start();
    }
    ~TestAgent() { stop(); }

    void start() {
        const int fd = openEndpoint(m_type);
        if (m_isStream) {
            m_listener = fd;
        } else {
            add(fd);
        }
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
        endAll();
        close(m_listener);
        m_listener = -1;
    }

    /// Closes every stream connection, with what was not read from it, as an agent does that is
    /// back at once: all the while the endpoint stands.
    void cut() {
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

    /// Waits until `count` records arrived.
    bool hasReceived(size_t count) const {
        return eventually([&] { return m_recordCount >= count; });
    }

    size_t recordCount() const { return m_recordCount; }
    size_t openConnections() const { return m_openConnections; }

 private:
    void endAll() {
        pause();
        const std::lock_guard<std::mutex> guard(m_mutex);
        for (Conversation& heard : m_conversations) {
            heard.cut |= heard.fd >= 0 || &heard == &m_conversations.back();
            end(heard);
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
        for (Conversation& heard : m_conversations) {
            any = (heard.fd >= 0 && read(heard)) || any;
        }
        return any;
    }

    bool read(Conversation& heard) {
        const ssize_t size = recv(heard.fd, m_bytes, sizeof(m_bytes), MSG_DONTWAIT);
        heard.decoder.feed(m_bytes, static_cast<size_t>(std::max<ssize_t>(size, 0)));
        RequestView record;
        while (heard.decoder.next(record) == RequestDecoder::Status::kRequest) {
            heard.records.emplace_back(record);
            ++m_recordCount;
        }
        const bool isTornDatagram = !m_isStream && heard.decoder.pending() > 0;
        if (size == 0 || (size < 0 && errno != EAGAIN) || isTornDatagram) {
            end(heard);
        }
        return size > 0;
    }

    void add(int fd) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_conversations.push_back({fd});
        ++m_openConnections;
    }

    void end(Conversation& heard) {
        if (heard.fd >= 0) {
            close(heard.fd);
            heard.fd = -1;
            --m_openConnections;
        }
    }

    const bool m_isStream;
    const int m_type;
    int m_listener = -1;
    std::atomic<bool> m_paused{false};
    std::atomic<size_t> m_recordCount{0}, m_openConnections{0};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::vector<Conversation> m_conversations;
    char m_bytes[65536];
};

}  // namespace Quorvel

#endif  // QUORVEL_TEST_AGENT_H
