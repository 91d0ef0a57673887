#ifndef QUORVEL_TESTS_SUPPORT_H
#define QUORVEL_TESTS_SUPPORT_H

// For programs of one source file: it defines time(2) for them.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>

#include <functional>
#include <memory>

#include "descriptor.h"
#include "qvapi_cpp.h"
#include "test_agent.h"

/// Declares real_NAME, the function behind one of the same name that the test program defines. It
/// is looked up early: a child forked while another thread is in dlsym(3) must not call that.
#define QUORVEL_REAL(name) \
    const auto real_##name = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

namespace Quorvel {

enum Transport : int8_t { kUnix = 0, kTcp = 1, kUdp = 2 };

QUORVEL_REAL(time);

/// What time(2) tells the library; the real time while it is 0.
inline std::atomic<time_t> now{0};

/// The result of `operation`, which must leave errno as it finds it.
template <typename Operation>
auto keepingErrno(const Operation& operation) {
    errno = 4711;
    auto result = operation();
    const int after = errno;
    EXPECT_EQ(after, 4711);
    return result;
}

inline ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// An empty directory for the fallback file and the sampling table's marker.
inline void makeFallbackDirectory() {
    std::filesystem::remove_all(kFallbackDirectory);
    std::filesystem::create_directories(kFallbackDirectory);
}

/// Runs `work` on `count` threads at once, each with its number.
inline void onThreads(int count, const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number) {
        threads.emplace_back(work, number);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// How many threads wait for others, as those do whose turn has not come.
inline int waiters() {
    const std::string waiting = std::to_string(SYS_futex) + ' ';
    int count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        count += contents(thread.path() / "syscall").rfind(waiting, 0) == 0 ? 1 : 0;
    }
    return count;
}

/// Forks a child that runs `steps`, whose EXPECT_... name what fails there, and ends.
inline pid_t runInChild(const std::function<void()>& steps) {
    const pid_t child = fork();
    if (child == 0) {
        steps();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

/// Waits, a minute at most, for the end of a child in which nothing failed.
inline void awaitChild(pid_t child) {
    int status = 0;
    const bool ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
    EXPECT_TRUE(ended && status == 0) << "child: " << (ended ? status : -1);
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

inline std::atomic<int> handlersChild{0};  ///< the status of the child that a handler forked

/// A signal handler.
inline void forkInHandler(int /*signal*/) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(42);
    }
    int status = 0;
    waitpid(child, &status, 0);
    handlersChild = WEXITSTATUS(status);
}

/// Serves an endpoint without a thread: what arrives waits until the test asks for its bytes.
class Agent {
 public:
    explicit Agent(int socketType) : m_endpoint(openEndpoint(socketType)) {}

    /// The next `length` bytes of the one connection, or the next datagram.
    std::string receive(size_t length) {
        if (m_connection.get() < 0) {
            EXPECT_TRUE(eventually([this] { return !isIdle(); })) << "nothing arrived";
            // There is none over UDP.
            m_connection = Descriptor(accept4(m_endpoint.get(), nullptr, nullptr, SOCK_CLOEXEC));
        }
        const int fd = (m_connection.get() < 0 ? m_endpoint : m_connection).get();
        std::string bytes(length, '\0');
        const ssize_t got = recv(fd, bytes.data(), length, MSG_WAITALL);
        return bytes.substr(0, got > 0 ? static_cast<size_t>(got) : 0);
    }

    /// Whether a datagram waits, which this takes.
    bool takeDatagram() {
        const bool waits = !isIdle();
        if (waits) {
            receive(1);
        }
        return waits;
    }

    /// Whether no connection and no datagram waits.
    bool isIdle() const {
        pollfd entry = {m_endpoint.get(), POLLIN, 0};
        return poll(&entry, 1, 0) == 0;
    }

 private:
    const Descriptor m_endpoint;
    Descriptor m_connection;
};

}  // namespace Quorvel

extern "C" time_t time(time_t* result) noexcept {
    const time_t fake = Quorvel::now;
    return fake != 0 ? fake : Quorvel::real_time(result);
}

#endif  // QUORVEL_TESTS_SUPPORT_H
