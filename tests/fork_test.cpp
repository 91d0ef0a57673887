#include <sys/shm.h>

#include <cstring>
#include <deque>

#include "qvapi_sampling.h"
#include "socket_client.h"
#include "support.h"

namespace {

QUORVEL_REAL(close);
QUORVEL_REAL(connect);
QUORVEL_REAL(pthread_create);
QUORVEL_REAL(pthread_rwlock_unlock);
QUORVEL_REAL(send);
QUORVEL_REAL(shmget);
QUORVEL_REAL(write);

std::atomic<bool> connected[4096];  ///< which descriptors are the library's sockets

/// What this thread does, once, inside the library's next call of `function`.
struct Interruption {
    const char* function = "";
    void (*action)() = nullptr;
};
thread_local Interruption interruption;

void interrupt(const char* function) {
    if (strcmp(interruption.function, function) == 0) {
        interruption.function = "";
        interruption.action();
    }
}

}  // namespace

extern "C" {

int connect(int fd, const sockaddr* address, socklen_t length) {
    interrupt("connect");
    connected[fd] = true;
    return real_connect(fd, address, length);
}

int close(int fd) {
    if (fd >= 0) {
        connected[fd] = false;
    }
    return real_close(fd);
}

ssize_t send(int fd, const void* data, size_t length, int flags) {
    interrupt("send");
    return real_send(fd, data, length, flags);
}

ssize_t write(int fd, const void* data, size_t length) {
    interrupt("write");
    return real_write(fd, data, length);
}

int shmget(key_t key, size_t size, int flags) noexcept {
    interrupt("shmget");
    return real_shmget(key, size, flags);
}

int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    interrupt("pthread_rwlock_unlock");
    return real_pthread_rwlock_unlock(lock);
}

int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    interrupt("pthread_create");
    return real_pthread_create(id, attributes, start, argument);
}

}  // extern "C"

namespace Quorvel {
namespace {

const int kNoSocket = 4096;

/// A socket that the library connected and did not close, or kNoSocket.
int connectedSocket() {
    return static_cast<int>(std::find(connected, std::end(connected), true) - connected);
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

/// A logger that has sent a record over its socket, at a time that stands still.
class ForkedSocketTest : public testing::TestWithParam<std::tuple<Transport, bool>> {
 protected:
    ForkedSocketTest() {
        now = 1000;
        EXPECT_EQ(m_logger->init("app"), 0);
        EXPECT_EQ(write("before"), 0);
        m_socket = connectedSocket();
        EXPECT_TRUE(isOpen(m_socket));
    }

    int write(const char* body) { return m_logger->write_baselog(1, body, false, 1); }

    const Transport m_transport = std::get<0>(GetParam());
    TestAgent m_agent{m_transport};
    std::unique_ptr<CLogger> m_logger =
        std::make_unique<CLogger>(m_transport, std::get<1>(GetParam()));
    int m_socket;
};

INSTANTIATE_TEST_SUITE_P(, ForkedSocketTest,
                         testing::Combine(testing::Values(kUnix, kTcp, kUdp), testing::Bool()));

TEST_P(ForkedSocketTest, IsClosedInTheChildBeforeForkReturns) {
    awaitChild(runInChild([&] { EXPECT_FALSE(isOpen(m_socket)); }));
}

TEST_P(ForkedSocketTest, IsReplacedByTheChildsFirstRecordAtOnce) {
    awaitChild(runInChild([&] { EXPECT_EQ(write("child"), 0); }));
    EXPECT_TRUE(m_agent.hasReceived(2));
    EXPECT_EQ(m_agent.conversations().size(), m_transport == kUdp ? 1U : 2U);
}

TEST_P(ForkedSocketTest, IsForgottenByTheChildWhichMayUseItsNumberForAnotherFile) {
    awaitChild(runInChild([&] {
        EXPECT_EQ(dup2(STDERR_FILENO, m_socket), m_socket);
        EXPECT_EQ(write("child"), 0) << "sent to no socket";
        m_logger.reset();
        EXPECT_TRUE(isOpen(m_socket));
    }));
}

TEST_P(ForkedSocketTest, StaysTheParents) {
    awaitChild(runInChild([] {}));
    EXPECT_EQ(write("after"), 0);
    EXPECT_TRUE(m_agent.hasReceived(2));
    EXPECT_EQ(m_agent.conversations().size(), 1U);
}

class ForkInHandlerTest : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(, ForkInHandlerTest,
                         testing::Values("connect", "send", "write", "pthread_create"));

TEST_P(ForkInHandlerTest, WaitsForNothingAndLeavesTheInterruptedCallWhole) {
    makeFallbackDirectory();
    TestAgent agent(kUnix);
    const bool fails = GetParam() == std::string("write");
    CLogger logger(fails ? kTcp : kUnix);
    ASSERT_EQ(logger.init("app"), 0);
    signal(SIGUSR1, forkInHandler);
    handlersChild = 0;
    interruption = {GetParam(), [] { raise(SIGUSR1); }};
    EXPECT_EQ(logger.write_baselog(1, "interrupted", false, 1), fails ? 7 : 0);
    EXPECT_EQ(logger.set_stat(true, 1, 0, 0), 0);
    EXPECT_EQ(handlersChild, 42);
    EXPECT_EQ(logger.write_baselog(1, "next", false, 1), fails ? 7 : 0);
    EXPECT_EQ(fallbackRecords().size(), fails ? 2U : 0U);
    EXPECT_TRUE(agent.hasReceived(fails ? 0 : 2));
}

TEST(ForkInForkTest, WaitsForNothingWhileTheParentGivesItsLocksBack) {
    signal(SIGUSR1, forkInHandler);
    handlersChild = 0;
    interruption = {"pthread_rwlock_unlock", [] { raise(SIGUSR1); }};
    awaitChild(runInChild([] {}));
    EXPECT_EQ(handlersChild, 42);
}

std::atomic<bool> hasEntered{false}, isInside{false};  ///< a thread, the call that it lingers in

void linger() {
    isInside = true;
    hasEntered = true;
    usleep(50000);
    isInside = false;
}

void writeRecord(int8_t transport) {
    CLogger logger(transport);
    logger.init("app");
    logger.write_baselog(1, "body", false, 1);
}

void leaveLoggersErrorText() { CLogger().write_baselog(1, "body", false, 1); }

void leaveClientsErrorText() {
    SocketClient client;
    client.init(kUnix, true);
    client.sendWithoutRecv(nullptr, 1, true);
}

/// A table that is too small counts as missing, and is looked for again a minute later.
void lookForTableAgain() {
    const Interruption atTheSecondLook = interruption;
    interruption = {};
    std::string name = "app";
    Sampling sampling;
    sampling.init(name, 4711, 100);
    now += 60;
    interruption = atTheSecondLook;
    sampling.needFilter(1);
}

struct CallInFlight {
    const char* name;
    const char* function;
    void (*makeCall)();
};

class ForkBesideCallTest : public testing::TestWithParam<CallInFlight> {};

INSTANTIATE_TEST_SUITE_P(
    , ForkBesideCallTest,
    testing::Values(
        CallInFlight{"Sends", "send", [] { writeRecord(kUnix); }},
        CallInFlight{"Connects", "connect", [] { writeRecord(kUnix); }},
        CallInFlight{"Appends", "write", [] { writeRecord(kTcp); }},
        CallInFlight{"LooksForTheTable", "shmget", lookForTableAgain},
        CallInFlight{"LeavesALoggersErrorText", "pthread_rwlock_unlock", leaveLoggersErrorText},
        CallInFlight{"LeavesAClientsErrorText", "pthread_rwlock_unlock", leaveClientsErrorText}),
    [](const auto& row) { return row.param.name; });

TEST_P(ForkBesideCallTest, WaitsForItsEnd) {
    now = 1000;
    hasEntered = false;
    makeFallbackDirectory();
    const TestAgent agent(kUnix);
    std::thread other([] {
        interruption = {GetParam().function, linger};
        GetParam().makeCall();
    });
    EXPECT_TRUE(eventually([] { return hasEntered.load(); }));
    awaitChild(runInChild([] { EXPECT_FALSE(isInside); }));
    other.join();
}

class ForkThreadTest : public testing::Test {
    void SetUp() override {
        if (kIsSanitized) {
            GTEST_SKIP() << "the sanitizers fail in a forked child that starts a thread";
        }
    }
};

TEST_F(ForkThreadTest, LeavesLoggersOnTheStacksOfLostThreadsOutOfAChildsOwnForks) {
    std::atomic<bool> done{false}, ready{false}, overwritten{false};
    std::thread owner([&] {
        const CLogger logger;
        ready = true;
        eventually([&] { return done.load(); });
    });
    ASSERT_TRUE(eventually([&] { return ready.load(); }));
    const auto overwriteStack = [&] {
        char stack[32768];
        explicit_bzero(memset(stack, 0x5A, sizeof(stack)), 0);
        overwritten = true;
        pause();
    };
    awaitChild(runInChild([&] {
        std::thread(overwriteStack).detach();
        EXPECT_TRUE(eventually([&] { return overwritten.load(); }));
        awaitChild(runInChild([] {}));
    }));
    done = true;
    owner.join();
}

const int8_t kStatistics = 99;
const int kWriters = 4;

/// Two loggers that four threads write over and a fifth gives statistics to, until they are
/// stopped. Each merge gives the values "a" to "z" of a text the same change.
class ForkStressTest : public ForkThreadTest {
 protected:
    ForkStressTest() {
        now = 0;
        makeFallbackDirectory();
        for (CLogger& logger : m_loggers) {
            EXPECT_EQ(logger.init("app"), 0);
        }
        EXPECT_EQ(m_loggers[0].set_stat(true, kStatistics, 1, 99), 0);
        for (char name = 'a'; name <= 'z'; ++name) {
            m_values[std::string(1, name)] = 1;
        }
    }

    /// Whether every closed batch has been written but the last, which may be in hand.
    static bool hasEmptyQueue(CLogger& logger) {
        pthread_rwlock_rdlock(&logger.m_queue_lock);
        const bool isEmpty = logger.m_stat_log_queues.empty();
        pthread_rwlock_unlock(&logger.m_queue_lock);
        return isEmpty;
    }

    static std::string bodyOf(int writer, int number) {
        return std::to_string(writer) + ":" + std::to_string(number) +
               std::string(number % 300, '.');
    }

    /// The first writes each record over a logger of its own.
    void writeRecords(int writer) {
        for (; !m_done; ++m_written[writer]) {
            CLogger own;
            own.init("app");
            CLogger& logger = writer == 0 ? own : m_loggers[writer % 2];
            logger.write_baselog(0, bodyOf(writer, m_written[writer]), false, 1);
            usleep(200);
        }
    }

    /// Pauses now and then with a batch open, which a child then inherits.
    void merge() {
        for (unsigned int n = 0; !m_done; ++n) {
            m_loggers[0].write_statlogs("merged " + std::to_string(n % 50), m_values, 1, n / 2000);
            if (n % 500 == 0) {
                usleep(5000);
            }
        }
    }

    void useLoggersInChild(int number) {
        EXPECT_EQ(connectedSocket(), kNoSocket);
        const std::string name = childName(number);
        EXPECT_LE(m_loggers[number % 2].write_baselog(0, name, false, 1), 8);
        for (const char* const text : {name.c_str(), "closes", "is never written"}) {
            EXPECT_EQ(m_loggers[0].write_statlogs(text, m_values, 0, ++m_childsTime), 0);
        }
        EXPECT_TRUE(eventually([this] { return hasEmptyQueue(m_loggers[0]); }));
        m_loggers.clear();
    }

    static std::string childName(int number) { return "child " + std::to_string(number); }

    /// How often each record was written that is none of the parent's statistics; of the
    /// children's statistics by the text alone.
    std::map<std::string, int> writtenRecords() const {
        std::map<std::string, int> written;
        for (const auto& records : {m_agent.records(), fallbackRecords()}) {
            for (const Request& record : records) {
                if (record.logType == 0) {
                    ++written[record.body];
                } else {
                    checkMerges(record.body);
                    ++written[record.body.substr(0, record.body.find("&a="))];
                }
            }
        }
        return written;
    }

    static void checkMerges(const std::string& text) {
        const size_t first = text.find("&a="), last = text.find("&z=");
        EXPECT_EQ(atoi(&text[first + 3]), atoi(&text[last + 3])) << text;
    }

    TestAgent m_agent{kUnix};
    std::deque<CLogger> m_loggers{2};
    std::map<std::string, int> m_values;
    std::atomic<bool> m_done{false};
    std::atomic<int> m_written[kWriters] = {};
    unsigned int m_childsTime = 1U << 31U;
};

TEST_F(ForkStressTest, LeavesEveryChildUsableLoggersAndLosesNoRecord) {
    const int kForks = 500;
    const size_t kAlive = 50;
    std::thread merges([this] { merge(); });
    std::thread writes(onThreads, kWriters, [this](int writer) { writeRecords(writer); });
    std::deque<pid_t> children;
    for (int number = 0; number < kForks; ++number) {
        children.push_back(runInChild([&] { useLoggersInChild(number); }));
        if (children.size() == kAlive) {
            awaitChild(children.front());
            children.pop_front();
        }
    }
    std::for_each(children.begin(), children.end(), awaitChild);
    m_done = true;
    merges.join();
    writes.join();
    m_loggers.clear();
    EXPECT_TRUE(eventually([&] { return m_agent.openConnections() == 0; }));
    auto written = writtenRecords();
    for (int number = 0; number < kForks; ++number) {
        EXPECT_EQ(written[childName(number)], 2) << "a record and a statistic of " << number;
    }
    for (int writer = 0; writer < kWriters; ++writer) {
        for (int number = 0; number < m_written[writer]; ++number) {
            EXPECT_EQ(written[bodyOf(writer, number)], 1) << bodyOf(writer, number);
        }
    }
}

}  // namespace
}  // namespace Quorvel
