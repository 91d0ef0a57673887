#include "socket_client.h"

#include <stdarg.h>

#include "support.h"

namespace {

// What a faked call returns, the errno it leaves, and what else it hands over: poll's events,
// getsockopt's value, the seconds that connect takes.
struct Fault {
    int result;
    int error = 0;
    int detail = 0;
};
using Faults = std::map<std::string, Fault>;

Faults faults;  // by the call's name, alone or with the number of the call: "send2"
std::map<std::string, int> calls;
int lastFd = -1;
bool bornCloseOnExec = false;

const Fault* faultOf(const std::string& call) {
    const std::string nth = call + std::to_string(++calls[call]);
    const auto found = faults.find(faults.count(nth) != 0 ? nth : call);
    errno = found != faults.end() ? found->second.error : errno;
    return found != faults.end() ? &found->second : nullptr;
}

template <typename... Arguments>
int call(const char* name, Arguments... arguments) {
    const Fault* const fault = faultOf(name);
    return fault != nullptr ? fault->result : Quorvel::callReal<int>(name, arguments...);
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    bornCloseOnExec = (type & SOCK_CLOEXEC) != 0;
    return call("socket", domain, type, protocol);
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    lastFd = fd;
    Quorvel::now += faults.count("connect") != 0 ? faults["connect"].detail : 0;
    return call("connect", fd, address, length);
}

extern "C" int poll(pollfd* entries, nfds_t count, int timeout) {
    if (faults.count("poll") != 0) {
        EXPECT_TRUE(entries->events == (POLLIN | POLLOUT) && timeout == 150);
        entries->revents = static_cast<short>(faults["poll"].detail);
    }
    return call("poll", entries, count, timeout);
}

extern "C" int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
    *static_cast<int*>(value) = faults["getsockopt"].detail;
    return call("getsockopt", fd, level, option, value, size);
}

extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    const Fault* const fault = command == F_GETFL           ? faultOf("getfl")
                               : command == F_SETFL         ? faultOf("setfl")
                               : command == F_DUPFD_CLOEXEC ? faultOf("dupfd")
                                                            : nullptr;
    return fault != nullptr ? fault->result
                            : Quorvel::callReal<int>("fcntl", fd, command, argument);
}

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    lastFd = fd;
    const Fault* const fault = faultOf("send");
    const size_t size = fault != nullptr ? static_cast<size_t>(fault->result) : length;
    return size > length ? -1 : Quorvel::callReal<ssize_t>("send", fd, data, size, flags);
}

// Calls that succeed may change errno, too.
extern "C" int close(int fd) {
    const int res = Quorvel::callReal<int>("close", fd);
    errno = E2BIG;
    return res;
}

extern "C" int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    errno = E2BIG;
    return Quorvel::callReal<int>("pthread_rwlock_wrlock", lock);
}

namespace Quorvel {
namespace {

const time_t kStart = 1400000000;

std::string retryAfter(int seconds) {
    return "return directly and will retry after [" + std::to_string(seconds) + "] seconds";
}

class SocketClientTest : public testing::Test {
 protected:
    SocketClientTest() { now = kStart; }
    ~SocketClientTest() override { EXPECT_EQ(openFiles(), m_openFiles); }

    // Sends "hello" through calls that fail as told, and leaves in `calls` what was called.
    static int send(SocketClient& client, const Faults& told = {}, bool lock = true) {
        char data[] = "hello";
        faults = told;
        calls.clear();
        const int res = keepingErrno([&] { return client.sendWithoutRecv(data, 5, lock); });
        faults.clear();
        return res;
    }
    static void expectBackOff(SocketClient& client) {
        EXPECT_EQ(send(client), 7);
        EXPECT_EQ(client.get_errmsg(), retryAfter(3));
        EXPECT_TRUE(calls.empty());
        now += 3;
        EXPECT_EQ(send(client), 0);
    }

 private:
    const ptrdiff_t m_openFiles = openFiles();
};

TEST_F(SocketClientTest, TellsWhichStepOfConnectingFailedAndBacksOff) {
    const std::pair<std::string, Fault> pending = {"connect", {-1, EINPROGRESS}};
    const std::pair<std::string, Fault> connected = {"connect", {0}};
    const std::pair<Faults, std::string> rows[] = {
        {{{"socket", {-1, EMFILE}}}, "create socket error:-1"},
        {{{"setfl1", {-1, EBADF}}}, "setnonblock error:-1"},
        {{{"connect", {-1, ECONNREFUSED}}}, "connect failed:[Connection refused]"},
        {{pending, {"poll", {-1, EINTR}}}, "poll erro,ret:[-1],fd:["},
        {{pending, {"poll", {0, EINPROGRESS}}},
         "syncConnect connect timeout. 0 Operation now in progress"},
        {{{"connect", {-1, EAGAIN}}, {"poll", {0, EAGAIN}}},
         "syncConnect connect timeout. 0 Resource temporarily unavailable"},
        {{pending, {"poll", {1, EINPROGRESS, POLLPRI}}},
         "syncConnect connect timeout. 1 Operation now in progress"},
        {{pending, {"poll", {1, 0, POLLOUT}}, {"getsockopt", {-1, ENOTSOCK}}},
         "1 syncConnect connect timeout. ret[1] Socket operation on non-socket"},
        {{pending, {"poll", {1, 0, POLLIN | POLLERR}}, {"getsockopt", {0, EINPROGRESS, 111}}},
         "2 syncConnect connect timeout. ret[1] error[111] Operation now in progress"},
        {{pending, {"poll", {1, 0, POLLHUP}}}, "POLL except error,ret:[1], fd:["},
        {{connected, {"getfl2", {-1, EBADF}}}, "setblock error:-1"},
        {{connected, {"setfl2", {-1, EBADF}}}, "setblock error:-1"},
    };
    for (const int8_t transport : {kUnix, kTcp}) {
        for (const auto& [told, text] : rows) {
            SCOPED_TRACE(text);
            Agent agent(transport);
            const ptrdiff_t files = openFiles();
            SocketClient client;
            client.init(transport, true);
            EXPECT_EQ(send(client, told), 7);
            const std::string fd = text.back() == '[' ? std::to_string(lastFd) + "]" : "";
            EXPECT_EQ(client.get_errmsg(), text + fd);
            EXPECT_EQ(openFiles(), files);
            expectBackOff(client);
            EXPECT_EQ(agent.receive(5), "hello");
        }
    }
}

TEST_F(SocketClientTest, CountsTheBackOffFromTheStartOfTheLastAttempt) {
    SocketClient client;
    client.init(kUnix, false);
    const Faults slow = {{"connect", {-1, ENOENT, 2}}};
    EXPECT_EQ(send(client, slow, false), 7);
    const std::pair<int, std::string> rows[] = {
        {2, retryAfter(1)}, {0, retryAfter(3)},
        {1, retryAfter(2)}, {-100, retryAfter(103)},
        {2, retryAfter(1)}, {3, "connect failed:[No such file or directory]"}};
    for (const auto& [elapsed, text] : rows) {
        now = kStart + elapsed;
        EXPECT_EQ(send(client, slow, false), 7);
        EXPECT_EQ(client.get_errmsg(), text);
        EXPECT_EQ(calls.empty(), elapsed < 3);
    }
}

TEST_F(SocketClientTest, WritesOnAfterAShortSendAndDisconnectsAfterAFailedOne) {
    const std::pair<Faults, int> rows[] = {{{{"send1", {2}}, {"send2", {1}}}, 5},
                                           {{{"send1", {3}}, {"send2", {-1, EAGAIN}}}, 3},
                                           {{{"send1", {1}}, {"send2", {-1, EINTR}}}, 1}};
    for (const auto& [told, sent] : rows) {
        Agent agent(kTcp);
        const ptrdiff_t files = openFiles();
        SocketClient client;
        client.init(-1, true);
        EXPECT_EQ(send(client, told), sent == 5 ? 0 : 8);
        EXPECT_EQ(openFiles(), files + (sent == 5 ? 1 : 0));
        EXPECT_EQ(agent.receive(sent), std::string("hello").substr(0, sent));
        if (sent < 5) {
            EXPECT_EQ(client.get_errmsg(),
                      "sendWithoutRecv buff length 5, write res " + std::to_string(sent));
            expectBackOff(client);
        }
    }
}

TEST_F(SocketClientTest, TriesADatagramSocketAgainAtTheNextSend) {
    const std::tuple<Faults, std::string, int> rows[] = {
        {{{"socket", {-1, EMFILE}}}, "24] errmsg[Too many open files]", 1},
        {{{"connect", {-1, ENETDOWN}}}, "100] errmsg[Network is down]", 1},
        {{{"setfl", {-1, EBADF}}}, "9] errmsg[Bad file descriptor]", 1},
        {{{"send", {-1, ECONNREFUSED}}}, "111] errmsg[Connection refused]", 0},
        {{{"send", {2}}}, "", 0}};
    for (const auto& [told, text, reopens] : rows) {
        SCOPED_TRACE(text);
        Agent agent(kUdp);
        const ptrdiff_t files = openFiles();
        SocketClient client;
        client.init(5, true);
        EXPECT_EQ(send(client, told), 17);
        EXPECT_EQ(client.get_errmsg().find("send udp message failed error[" + text), 0U);
        EXPECT_EQ(openFiles(), files + 1 - reopens);
        EXPECT_EQ(send(client), 0);
        EXPECT_EQ(calls["socket"], reopens);
    }
}

TEST_F(SocketClientTest, RefusesWhatIsNoRequestBeforeItTouchesTheNetwork) {
    char data[] = "x";
    SocketClient client;
    client.init(kUnix, true);
    calls.clear();
    EXPECT_EQ(client.sendWithoutRecv(nullptr, 0, true), 4);
    EXPECT_EQ(client.get_errmsg(), "sendWithoutRecv buff is null");
    EXPECT_EQ(client.sendWithoutRecv(data, -5, true), 6);
    EXPECT_EQ(client.get_errmsg(), "sendWithoutRecv buff length -5");
    EXPECT_EQ(client.sendWithoutRecv(data, 0, true), 6);
    EXPECT_TRUE(calls.empty());
}

TEST_F(SocketClientTest, StaysOffTheStandardStreamsAndOutOfOtherPrograms) {
    const std::pair<int8_t, Transport> rows[] = {{0, kUnix}, {1, kTcp}, {-128, kTcp}, {127, kUdp}};
    for (const auto& [type, transport] : rows) {
        SCOPED_TRACE(int{type});
        Agent agent(transport);
        SocketClient client;
        client.init(type, true);
        int res = withoutStandardStreams([&] { return send(client, {{"dupfd", {-1, EMFILE}}}); });
        EXPECT_EQ(res, transport == kUdp ? 17 : 7);
        now += 3;
        res = withoutStandardStreams([&] { return send(client); });
        EXPECT_EQ(res, 0);
        EXPECT_EQ(agent.receive(5), "hello");
        EXPECT_TRUE(bornCloseOnExec);
        EXPECT_GT(lastFd, 2);
        EXPECT_EQ(::fcntl(lastFd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ((::fcntl(lastFd, F_GETFL) & O_NONBLOCK) != 0, transport == kUdp);
    }
}

}  // namespace
}  // namespace Quorvel
