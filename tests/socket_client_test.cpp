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
int detail = 0;  // of the last call
int lastFd = -1;

template <typename... Arguments>
int call(const std::string& name, Arguments... arguments) {
    const std::string nth = name + std::to_string(++calls[name]);
    const auto found = faults.find(faults.count(nth) != 0 ? nth : name);
    detail = 0;
    if (found == faults.end()) {
        return Quorvel::callReal<int>(name.c_str(), arguments...);
    }
    detail = found->second.detail;
    errno = found->second.error;
    return found->second.result;
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    EXPECT_NE(type & SOCK_CLOEXEC, 0);
    return call("socket", domain, type, protocol);
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    lastFd = fd;
    const int res = call("connect", fd, address, length);
    Quorvel::now += detail;
    return res;
}

extern "C" int poll(pollfd* entries, nfds_t count, int timeout) {
    const int res = call("poll", entries, count, timeout);
    EXPECT_TRUE(timeout == 0 || (timeout == 150 && entries->events == (POLLIN | POLLOUT)));
    entries->revents = static_cast<short>(entries->revents | detail);
    return res;
}

extern "C" int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
    const int res = call("getsockopt", fd, level, option, value, size);
    *static_cast<int*>(value) |= detail;
    return res;
}

// Gets the flags of a new socket, sets them, and the same again for streams once they are
// connected.
extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return call("fcntl", fd, command, argument);
}

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    return call("send", fd, data, length, flags);
}

// A call that succeeds may change errno, too.
extern "C" int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    errno = E2BIG;
    return Quorvel::callReal<int>("pthread_rwlock_wrlock", lock);
}

namespace Quorvel {
namespace {

// Sends "hello" through calls that fail as told, and leaves in `calls` what was called.
int send(SocketClient& client, const Faults& told = {}) {
    char data[] = "hello";
    faults = told;
    calls.clear();
    const int res = keepingErrno([&] { return client.sendWithoutRecv(data, 5, true); });
    faults.clear();
    return res;
}

TEST(SocketClientTest, TellsWhichStepFailedAndClosesAndBacksOff) {
    const Faults::value_type pending = {"connect", {-1, EINPROGRESS}};
    const Faults::value_type full = {"connect", {-1, EAGAIN}};
    const Faults::value_type out = {"poll", {1, 0, POLLOUT}};
    const std::string timeout = "syncConnect connect timeout. ";
    const std::string unsent = "sendWithoutRecv buff length 5, write res ";
    const std::string datagram = "send udp message failed error[";
    const std::tuple<int, Faults, std::string> rows[] = {
        {7, {{"socket", {-1, EMFILE}}}, "create socket error:-1"},
        {7, {{"fcntl2", {-1, EBADF}}}, "setnonblock error:-1"},
        {7, {{"connect", {-1, ECONNREFUSED, 2}}}, "connect failed:[Connection refused]"},
        {7, {pending, {"poll", {-1, EINTR}}}, "poll erro,ret:[-1],fd:["},
        {7, {full, {"poll", {0, ENOENT}}}, timeout + "0 No such file or directory"},
        {7, {pending, {"poll", {1, EIO, POLLPRI}}}, timeout + "1 Input/output error"},
        {7, {pending, out, {"getsockopt", {-1, EPIPE}}}, "1 " + timeout + "ret[1] Broken pipe"},
        {7, {pending, out, {"getsockopt", {0, 0, 9}}}, "2 " + timeout + "ret[1] error[9] Success"},
        {7, {pending, {"poll", {1, 0, POLLHUP}}}, "POLL except error,ret:[1], fd:["},
        {7, {{"connect", {0}}, {"fcntl4", {-1, EBADF}}}, "setblock error:-1"},
        {8, {{"send1", {3}}, {"send2", {-1, EAGAIN}}}, unsent + "3"},
        {17, {{"socket", {-1, EMFILE}}}, datagram + "24] errmsg[Too many open files]"},
        {17, {{"connect", {-1, ENETDOWN}}}, datagram + "100] errmsg[Network is down]"},
        {17, {{"fcntl2", {-1, EBADF}}}, datagram + "9] errmsg[Bad file descriptor]"},
        {17, {{"send", {-1, ECONNREFUSED}}}, datagram + "111] errmsg[Connection refused]"},
    };
    for (const auto& [code, told, text] : rows) {
        SCOPED_TRACE(text);
        const time_t start = now = 1400000000;
        const Transport transport = code == 17 ? kUdp : kUnix;
        Agent agent(transport);
        const ptrdiff_t files = openFiles();
        SocketClient client;
        client.init(transport, true);
        EXPECT_EQ(send(client, told), code);
        const std::string fd = text.back() == '[' ? std::to_string(lastFd) + "]" : "";
        EXPECT_EQ(client.get_errmsg(), text + fd);
        EXPECT_EQ(openFiles(), files + static_cast<int>(told.count("send")));
        for (const int elapsed : code == 17 ? std::vector<int>() : std::vector<int>{0, 2, -100}) {
            now = start + elapsed;
            EXPECT_EQ(send(client), 7);
            EXPECT_EQ(client.get_errmsg(), "return directly and will retry after [" +
                                               std::to_string(3 - elapsed) + "] seconds");
            EXPECT_TRUE(calls.empty());
        }
        now = start + 3;
        EXPECT_EQ(send(client), 0);
        EXPECT_EQ(agent.receive(5), code == 8 ? "" : "hello");
    }
}

TEST(SocketClientTest, SendsAllOffTheStandardStreamsAndOutOfOtherPrograms) {
    char empty[] = "";
    const Faults twoBytes = {{"send1", {2}}};  // only told to have been sent
    const std::tuple<int8_t, Transport, Faults, std::string> rows[] = {
        {0, kUnix, twoBytes, "llo"}, {-128, kTcp, twoBytes, "llo"}, {127, kUdp, {}, "hello"}};
    for (const auto& [type, transport, told, sent] : rows) {
        Agent agent(transport);
        SocketClient client;
        client.init(type, true);
        EXPECT_EQ(client.sendWithoutRecv(nullptr, 0, true), 4);
        EXPECT_EQ(client.get_errmsg(), "sendWithoutRecv buff is null");
        EXPECT_EQ(client.sendWithoutRecv(empty, 0, true), 6);
        EXPECT_EQ(client.get_errmsg(), "sendWithoutRecv buff length 0");
        close(0);
        EXPECT_EQ(send(client, told), 0);
        EXPECT_EQ(open("/dev/null", O_RDONLY), 0) << "the first descriptor is not free any more";
        EXPECT_EQ(agent.receive(sent.size()), sent);
        EXPECT_EQ(::fcntl(lastFd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ((::fcntl(lastFd, F_GETFL) & O_NONBLOCK) != 0, transport == kUdp);
    }
}

}  // namespace
}  // namespace Quorvel
