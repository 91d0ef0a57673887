#ifndef QUORVEL_TESTS_SUPPORT_H
#define QUORVEL_TESTS_SUPPORT_H

// For programs of one source file: it defines time(2) for them.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <time.h>

#include <fstream>
#include <functional>
#include <map>
#include <memory>

#include "test_agent.h"

namespace Quorvel {

const char* const kFallbackFile = "/data/qvagent/msgdat.dat";

enum Transport : int8_t { kUnix = 0, kTcp = 1, kUdp = 2 };

/// What time(2) tells the library; the real time while it is 0.
inline std::atomic<time_t> now{0};

/// Calls the function behind one of the same name that the test program defines.
template <typename Result, typename... Arguments>
Result callReal(const char* name, Arguments... arguments) {
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

/// The result of `operation`, which must leave errno as it finds it.
template <typename Operation>
auto keepingErrno(const Operation& operation) {
    const int before = errno = 4711;
    auto result = operation();
    const int after = errno;
    EXPECT_EQ(after, before);
    return result;
}

inline ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// Serves an endpoint without a thread: what arrives waits until the test asks for its bytes.
class Agent {
 public:
    explicit Agent(int socketType) : m_endpoint(openEndpoint(socketType)) {}
    ~Agent() {
        close(m_connection);
        close(m_endpoint);
    }

    /// The next `length` bytes of the one connection, or the next datagram.
    std::string receive(size_t length) {
        if (m_connection < 0) {
            EXPECT_TRUE(eventually([this] { return !isIdle(); })) << "nothing arrived";
            m_connection = accept4(m_endpoint, nullptr, nullptr, SOCK_CLOEXEC);  // none over UDP
        }
        const int fd = m_connection < 0 ? m_endpoint : m_connection;
        std::string bytes(length, '\0');
        const ssize_t got = recv(fd, bytes.data(), length, MSG_WAITALL);
        return bytes.substr(0, got > 0 ? static_cast<size_t>(got) : 0);
    }

    /// Whether no connection and no datagram waits.
    bool isIdle() const {
        pollfd entry = {m_endpoint, POLLIN, 0};
        return poll(&entry, 1, 0) == 0;
    }

 private:
    const int m_endpoint;
    int m_connection = -1;
};

}  // namespace Quorvel

extern "C" time_t time(time_t* result) noexcept {
    const time_t fake = Quorvel::now;
    return fake != 0 ? fake : Quorvel::callReal<time_t>("time", result);
}

#endif  // QUORVEL_TESTS_SUPPORT_H
