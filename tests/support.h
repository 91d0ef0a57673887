#ifndef QUORVEL_TESTS_SUPPORT_H
#define QUORVEL_TESTS_SUPPORT_H

// For programs of one source file: it defines time(2) for them.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace Quorvel {

const char* const kFallbackFile = "/data/qvagent/msgdat.dat";
const char* const kAgentSocket = "/data/container2host/cqv";

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

/// The result of `operation` in a process without standard streams, which it must not replace.
template <typename Operation>
int withoutStandardStreams(const Operation& operation) {
    int saved[3];
    for (int fd = 0; fd < 3; ++fd) {
        saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 100);
        close(fd);
    }
    const int res = operation();
    for (int fd = 0; fd < 3; ++fd) {
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
        dup2(saved[fd], fd);
        close(saved[fd]);
    }
    return res;
}

inline ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// Stands in for the collection agent on one transport, for one connection.
class Agent {
 public:
    explicit Agent(int transport)
        : m_isStream(transport != kUdp),
          m_listener(socket(transport == kUnix ? AF_UNIX : AF_INET,
                            (m_isStream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0)) {
        std::filesystem::create_directories(std::filesystem::path(kAgentSocket).parent_path());
        const timeval patience = {20, 0};
        const int on = 1;
        setsockopt(m_listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_un local = {AF_UNIX, {}};
        std::string(kAgentSocket).copy(local.sun_path, sizeof(local.sun_path));
        const sockaddr_in loopback = {AF_INET, htons(20005), {htonl(INADDR_LOOPBACK)}, {}};
        const void* const address =
            transport == kUnix ? &local : static_cast<const void*>(&loopback);
        transport == kUnix ? unlink(kAgentSocket) : 0;
        EXPECT_EQ(bind(m_listener, static_cast<const sockaddr*>(address),
                       transport == kUnix ? sizeof(local) : sizeof(loopback)),
                  0);
        EXPECT_TRUE(!m_isStream || listen(m_listener, 16) == 0);
    }
    ~Agent() {
        close(m_connection);
        close(m_listener);
    }

    /// The next `length` bytes of the connection, or the next datagram.
    std::string receive(size_t length) {
        m_connection = m_isStream && m_connection < 0
                           ? accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)
                           : m_connection;
        std::string bytes(length, '\0');
        const ssize_t got = recv(m_isStream ? m_connection : m_listener, bytes.data(), length,
                                 m_isStream ? MSG_WAITALL : 0);
        EXPECT_GT(got, 0) << "nothing arrived";
        return bytes.substr(0, got > 0 ? static_cast<size_t>(got) : 0);
    }

    /// Whether no connection and no datagram waits.
    bool isIdle() const {
        pollfd entry = {m_listener, POLLIN, 0};
        return poll(&entry, 1, 0) == 0;
    }

 private:
    const bool m_isStream;
    const int m_listener;
    int m_connection = -1;
};

}  // namespace Quorvel

extern "C" time_t time(time_t* result) noexcept {
    const time_t fake = Quorvel::now;
    return fake != 0 ? fake : Quorvel::callReal<time_t>("time", result);
}

#endif  // QUORVEL_TESTS_SUPPORT_H
