#include "socket_client.h"

#include <stdarg.h>

#include "support.h"

namespace {

QUORVEL_REAL(socket);
QUORVEL_REAL(connect);
QUORVEL_REAL(poll);
QUORVEL_REAL(getsockopt);
QUORVEL_REAL(fcntl);
QUORVEL_REAL(send);

const int kEvery = 0;

/// A call of the library that fails as told.
struct Fault {
    std::string call;
    int nth;  ///< or kEvery
    int result;
    int error = 0;
    int out = 0;  ///< the events of poll, the value of getsockopt
};

std::vector<Fault> faults;
std::map<std::string, int> calls;
int connectSeconds = 0;  ///< how long a connect takes
int connectedFd = -1;

int ignored = 0;

/// What a call gives, or its fault, which also sets errno and `out`.
template <typename Out, typename Real, typename... Arguments>
auto orFault(const char* call, Out* out, Real* real, Arguments... arguments) {
    const int nth = ++calls[call];
    for (const Fault& fault : faults) {
        if (fault.call == call && (fault.nth == nth || fault.nth == kEvery)) {
            errno = fault.error;
            *out = static_cast<Out>(fault.out);
            return static_cast<decltype(real(arguments...))>(fault.result);
        }
    }
    return real(arguments...);
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return orFault("socket", &ignored, real_socket, domain, type, protocol);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    connectedFd = fd;
    Quorvel::now += connectSeconds;
    return orFault("connect", &ignored, real_connect, fd, address, length);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
    EXPECT_TRUE(timeout == 150 || faults.empty());
    return orFault("poll", &entries->revents, real_poll, entries, count, timeout);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
    int* const out = static_cast<int*>(value);
    return orFault("getsockopt", out, real_getsockopt, fd, level, option, value, size);
}

int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return orFault("fcntl", &ignored, real_fcntl, fd, command, argument);
}

ssize_t send(int fd, const void* data, size_t length, int flags) {
    return orFault("send", &ignored, real_send, fd, data, length, flags);
}

}  // extern "C"

namespace Quorvel {
namespace {

const time_t kStart = 1400000000;
const int kNotConnected = 7;
const int kNotWritten = 8;
const int kNoDatagram = 17;

const Fault kPending = {"connect", kEvery, -1, EINPROGRESS};
const Fault kWritable = {"poll", kEvery, 1, 0, POLLOUT};
const Fault kRefused = {"connect", kEvery, -1, ECONNREFUSED};

/// Sends "hello" through calls that fail as told, and leaves in `calls` what was called.
int send(SocketClient& client, const std::vector<Fault>& told = {}) {
    char data[] = "hello";
    faults = told;
    calls.clear();
    const int res = keepingErrno([&] { return client.sendWithoutRecv(data, 5, true); });
    faults.clear();
    return res;
}

/// A client and the agent, on the Unix stream unless a test says otherwise.
class ClientTest : public testing::Test {
 protected:
    explicit ClientTest(Transport transport = kUnix) : m_agent(transport) {
        now = kStart;
        connectSeconds = 0;
        m_client.init(transport, true);
    }

    Agent m_agent;
    SocketClient m_client;
};

using FaultRow = std::pair<std::vector<Fault>, std::string>;

TEST(ConnectingTest, TellsWhichStepFailedAndClosesTheSocket) {
    const std::string timeout = "syncConnect connect timeout. ";
    const Fault failing = {"getsockopt", kEvery, -1, EPIPE};
    const Fault socketError = {"getsockopt", kEvery, 0, 0, 9};
    const int lowestFree = dup(STDIN_FILENO);
    const std::string fd = std::to_string(lowestFree);
    close(lowestFree);
    const FaultRow rows[] = {
        {{{"socket", kEvery, -1, EMFILE}}, "create socket error:-1"},
        {{{"fcntl", 1, -1, EBADF}}, "setnonblock error:-1"},
        {{{"fcntl", 2, -1, EBADF}}, "setnonblock error:-1"},
        {{kRefused}, "connect failed:[Connection refused]"},
        {{kPending, {"poll", kEvery, -1, EINTR}}, "poll erro,ret:[-1],fd:[" + fd + "]"},
        {{kPending, {"poll", kEvery, 0, ENOENT}}, timeout + "0 No such file or directory"},
        {{kPending, {"poll", kEvery, 1, EIO, POLLPRI}}, timeout + "1 Input/output error"},
        {{kPending, kWritable, failing}, "1 " + timeout + "ret[1] Broken pipe"},
        {{kPending, kWritable, socketError}, "2 " + timeout + "ret[1] error[9] Success"},
        {{kPending, {"poll", kEvery, 1, 0, POLLHUP}}, "POLL except error,ret:[1], fd:[" + fd + "]"},
        {{{"connect", kEvery, 0}, {"fcntl", 4, -1, EBADF}}, "setblock error:-1"},
    };
    for (const auto& [told, text] : rows) {
        SCOPED_TRACE(text);
        SocketClient client;
        client.init(kUnix, true);
        const ptrdiff_t files = openFiles();
        EXPECT_EQ(send(client, told), kNotConnected);
        EXPECT_EQ(client.get_errmsg(), text);
        EXPECT_EQ(openFiles(), files);
    }
}

TEST_F(ClientTest, BacksOffAfterAFailureWithoutACall) {
    EXPECT_EQ(send(m_client, {kRefused}), kNotConnected);
    for (const int elapsed : {0, 1, 2, -100}) {
        now = kStart + elapsed;
        EXPECT_EQ(send(m_client), kNotConnected);
        EXPECT_EQ(m_client.get_errmsg(), "return directly and will retry after [" +
                                             std::to_string(3 - elapsed) + "] seconds");
        EXPECT_TRUE(calls.empty());
    }
}

TEST_F(ClientTest, TriesAgainThreeSecondsAfterAnAttemptBegan) {
    connectSeconds = 3;
    EXPECT_EQ(send(m_client, {kRefused}), kNotConnected);
    ASSERT_EQ(send(m_client), 0);
    EXPECT_EQ(m_agent.receive(5), "hello");
}

TEST_F(ClientTest, TellsHowMuchWasSentAndCloses) {
    const ptrdiff_t files = openFiles();
    EXPECT_EQ(send(m_client, {{"send", 1, 3}, {"send", 2, -1, EAGAIN}}), kNotWritten);
    EXPECT_EQ(m_client.get_errmsg(), "sendWithoutRecv buff length 5, write res 3");
    EXPECT_EQ(openFiles(), files);
}

TEST_F(ClientTest, SendsInVainWhereTheBacklogIsFull) {
    EXPECT_EQ(send(m_client, {{"connect", kEvery, -1, EAGAIN}}), kNotWritten);
    EXPECT_EQ(m_client.get_errmsg(), "sendWithoutRecv buff length 5, write res 0");
}

TEST_F(ClientTest, GoesOnAfterSendingAPartOrNothing) {
    for (const int sent : {2, 0}) {
        ASSERT_EQ(send(m_client, {{"send", 1, sent}}), 0);
        EXPECT_EQ(m_agent.receive(5 - sent), std::string("hello").substr(sent));
    }
}

// The kernel rounds the 5 ms up to its ticks, of 10 ms at most.
TEST_F(ClientTest, LimitsHowLongASendWaits) {
    timeval limit = {1, 0};
    socklen_t size = sizeof(limit);
    ASSERT_EQ(send(m_client), 0);
    ::getsockopt(connectedFd, SOL_SOCKET, SO_SNDTIMEO, &limit, &size);
    EXPECT_TRUE(limit.tv_sec == 0 && limit.tv_usec >= 5000 && limit.tv_usec <= 10000);
}

TEST(DatagramSocketTest, TellsWhyItSentNothingAndDoesNotBackOff) {
    const FaultRow rows[] = {
        {{{"socket", kEvery, -1, EMFILE}}, "24] errmsg[Too many open files]"},
        {{{"connect", kEvery, -1, ENETDOWN}}, "100] errmsg[Network is down]"},
        {{{"fcntl", 2, -1, EBADF}}, "9] errmsg[Bad file descriptor]"},
        {{{"send", kEvery, -1, ECONNREFUSED}}, "111] errmsg[Connection refused]"},
    };
    Agent agent(kUdp);
    for (const auto& [told, text] : rows) {
        SocketClient client;
        client.init(kUdp, true);
        EXPECT_EQ(send(client, told), kNoDatagram);
        EXPECT_EQ(client.get_errmsg(), "send udp message failed error[" + text);
        ASSERT_EQ(send(client), 0);
        EXPECT_EQ(agent.receive(5), "hello");
    }
}

bool& noAgent(SocketClient& client);

template <bool SocketClient::*Member>
struct Revealed {
    friend bool& noAgent(SocketClient& client) { return client.*Member; }
};
template struct Revealed<&SocketClient::m_noAgent>;  // an instantiation may name what is private

TEST(DatagramSocketTest, SendsNothingWithoutAnAgent) {
    const Agent agent(kUdp);
    SocketClient client;
    client.init(kUdp, true);
    noAgent(client) = true;
    EXPECT_EQ(send(client), kNoDatagram);
    EXPECT_EQ(client.get_errmsg(), "");
    EXPECT_TRUE(agent.isIdle());
}

TEST_F(ClientTest, RefusesWhatIsNoRequest) {
    char data[] = "hello";
    EXPECT_EQ(m_client.sendWithoutRecv(nullptr, 0, true), 4);
    EXPECT_EQ(m_client.get_errmsg(), "sendWithoutRecv buff is null");
    EXPECT_EQ(m_client.sendWithoutRecv(data, 0, true), 6);
    EXPECT_EQ(m_client.get_errmsg(), "sendWithoutRecv buff length 0");
}

class SocketTest : public ClientTest, public testing::WithParamInterface<Transport> {
 protected:
    SocketTest() : ClientTest(GetParam()) { EXPECT_EQ(send(m_client), 0); }
};

INSTANTIATE_TEST_SUITE_P(, SocketTest, testing::Values(kUnix, kTcp, kUdp));

TEST_P(SocketTest, IsKeptFromOtherPrograms) {
    EXPECT_EQ(::fcntl(connectedFd, F_GETFD), FD_CLOEXEC);
}

TEST_P(SocketTest, IsNoStandardDescriptor) {
    SocketClient client;
    client.init(GetParam(), true);
    close(STDIN_FILENO);
    ASSERT_EQ(send(client), 0);
    EXPECT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO);
}

}  // namespace
}  // namespace Quorvel
