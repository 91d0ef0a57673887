#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>

#include "qvapi_cpp.h"
#include "support.h"
#include "test_agent.h"

namespace {

std::atomic<unsigned> socketCalls{0};
std::atomic<bool> sendFails{false};
thread_local int ownError = 0;

}  // namespace

extern "C" {

int socket(int family, int type, int protocol) noexcept {
    return ++socketCalls, Quorvel::callReal<int>("socket", family, type, protocol);
}

// Each failing send has an error number of its own.
ssize_t send(int fd, const void* data, size_t length, int flags) {
    ++socketCalls;
    return sendFails ? (errno = ++ownError, -1)
                     : Quorvel::callReal<ssize_t>("send", fd, data, length, flags);
}

// Now and then lets the other threads leave their texts first.
int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    thread_local unsigned calls = 0;
    if (sendFails && ++calls % 99 == 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(10));
    }
    return Quorvel::callReal<int>("pthread_rwlock_wrlock", lock);
}

}  // extern "C"

namespace Quorvel {
namespace {

const unsigned kRecords = kIsSanitized ? 5000 : 50000;
const int8_t kThreads = 8;
const int kDisturbances = 30;
const std::string kName = "stress";
const std::string kLastBody = "last";

void startAnew() {
    std::filesystem::create_directories("/data/qvagent");
    std::filesystem::remove(kFallbackFile);
    now = 1000000;
}

/// A thread and a number, filled up with a letter of theirs; one in a thousand takes the long form.
std::string makeBody(int thread, unsigned number) {
    const unsigned filling = number % 1000 == 500 ? 40000 : 40 + number % 50;
    return std::to_string(thread) + ":" + std::to_string(number) + ":" +
           std::string(filling, static_cast<char>('a' + (3 * thread + number) % 26));
}

struct Write {
    int code;
    int order;  ///< among those of its thread that returned 0
    int arrivals = 0;
    int copies = 0;  ///< in the fallback file
};

/// 8 threads write until each has written its share and the agent was disturbed often enough. All
/// the while the clock runs three seconds in a millisecond, except just after a cut.
class DeliveryStressTest : public testing::TestWithParam<Transport> {
 protected:
    DeliveryStressTest() {
        startAnew();
        EXPECT_EQ(m_logger->init(kName), 0);
    }

    void writeAll(int8_t thread) {
        int order = 0;
        for (unsigned i = 0; i < kRecords || !m_disturbed; ++i) {
            const int code = m_logger->write_baselog(thread, makeBody(thread, i), false, i);
            m_writes[thread].push_back({code, order});
            code == 0 ? ++order : ++m_failures;
        }
    }

    /// In turn takes the agent away until writes fail, has it stall that long, cuts connections.
    void disturb(int turn) {
        const size_t arrived = m_agent.recordCount() + (m_isStream ? kRecords / 20 : 100);
        EXPECT_TRUE(afterBackOffs([&] { return m_agent.recordCount() > arrived; }));
        EXPECT_TRUE(eventually([&] { return m_agent.openConnections() <= 1; }));
        if (m_isStream && turn % 3 == 2) {
            m_agent.cut();
        } else {
            const bool stalls = m_isStream && turn % 3 == 1;
            const unsigned failures = m_failures + (stalls ? 1 : kRecords / 50);
            stalls ? m_agent.pause() : m_agent.stop();
            EXPECT_TRUE(afterBackOffs([&] { return m_failures >= failures; }));
            stalls ? m_agent.proceed() : m_agent.start();
        }
        now += 3;
    }

    /// The last record comes last, so that all connections are known by then.
    void receiveTheRest() {
        EXPECT_TRUE(afterBackOffs([&] {
            m_logger->write_baselog(0, kLastBody, false, UINT32_MAX);
            const auto records = m_agent.records();
            return !records.empty() && records.back().body == kLastBody;
        }));
        m_logger.reset();
        EXPECT_TRUE(eventually([&] { return !m_isStream || m_agent.openConnections() == 0; }));
    }

    template <class Condition>
    static bool afterBackOffs(Condition condition) {
        return eventually([&] { return now += 3, condition(); });
    }

    /// The write that `record` came from; null for the last record.
    Write* find(const Request& record) {
        const unsigned thread = record.logType;
        const unsigned number = record.timestamp;
        const bool known = thread < kThreads && number < m_writes[thread].size();
        EXPECT_EQ(record.body, known ? makeBody(record.logType, number) : kLastBody);
        EXPECT_EQ(record.application, kName);
        return known ? &m_writes[thread][number] : nullptr;
    }

    /// What returned 0 may be missing where a connection was cut, and nowhere else.
    void checkArrivals(const Conversation& heard) {
        EXPECT_EQ(heard.decoder.error(), "");
        EXPECT_TRUE(m_isStream || heard.decoder.pending() == 0) << "a datagram was cut short";
        for (const Request& record : heard.records) {
            if (Write* const write = find(record)) {
                const auto next = m_nextOrders.insert({record.logType, write->order}).first;
                EXPECT_TRUE(!m_isStream || write->order == next->second) << record.body;
                next->second = write->order + 1;
                ++write->arrivals;
            }
        }
        if (heard.cut) {
            m_nextOrders.clear();
        }
    }

    const bool m_isStream = GetParam() != kUdp;
    const ptrdiff_t m_filesBefore = openFiles();
    TestAgent m_agent{GetParam()};
    std::unique_ptr<CLogger> m_logger = std::make_unique<CLogger>(GetParam());
    std::vector<Write> m_writes[kThreads];
    std::map<int, int> m_nextOrders;  ///< of each thread, where it is known
    std::atomic<unsigned> m_failures{0};
    std::atomic<bool> m_disturbed{false};
};

INSTANTIATE_TEST_SUITE_P(, DeliveryStressTest, testing::Values(kUnix, kTcp, kUdp));

TEST_P(DeliveryStressTest, KeepsRecordsWholeAndSingleWhileTheAgentComesAndGoes) {
    std::vector<std::thread> threads;
    for (int8_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i] { writeAll(i); });
    }
    for (int turn = 0; turn < kDisturbances && !HasFailure(); ++turn) {
        disturb(turn);
    }
    m_disturbed = true;
    std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
    receiveTheRest();
    const auto conversations = m_agent.conversations();
    m_agent.stop();
    EXPECT_EQ(openFiles(), m_filesBefore);

    for (const Request& record : fallbackRecords()) {
        if (Write* const write = find(record)) {
            ++write->copies;
        }
    }
    for (const Conversation& heard : conversations) {
        checkArrivals(heard);
    }
    for (const auto& writes : m_writes) {
        for (const Write& write : writes) {
            const bool failed = m_isStream ? write.code == 7 || write.code == 8 : write.code == 17;
            ASSERT_TRUE(failed || write.code == 0) << write.code;
            ASSERT_LE(write.arrivals, failed ? 0 : 1) << write.code;
            ASSERT_EQ(write.copies, failed && m_isStream ? 1 : 0) << write.code;
        }
    }
}

TEST(StoppedAgentTest, CostsOneShortWaitAndThenNoSocketCall) {
    const size_t writes = 10000;
    const std::string body(1000, 'x');
    startAnew();
    const int listener = openEndpoint(kUnix);
    const pid_t agent = fork();
    while (agent == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pause();
    }
    close(listener);
    kill(agent, SIGSTOP);
    waitpid(agent, nullptr, WUNTRACED);
    CLogger logger(kUnix);
    EXPECT_EQ(logger.init(kName), 0);
    std::vector<int> codes;
    unsigned callsAtFailure = 0;
    while (codes.size() < writes) {
        const auto start = std::chrono::steady_clock::now();
        codes.push_back(logger.write_baselog(LT_NORMAL, body, false, 1));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
        callsAtFailure = codes.back() == 8 ? socketCalls.load() : callsAtFailure;
    }
    kill(agent, SIGKILL);
    waitpid(agent, nullptr, 0);

    const auto sent = static_cast<size_t>(std::count(codes.begin(), codes.end(), 0));
    std::vector<int> expected(std::max<size_t>(sent, 100), 0);
    expected.push_back(8);
    expected.resize(writes, 7);
    EXPECT_EQ(codes, expected);
    EXPECT_EQ(socketCalls, callsAtFailure);
    EXPECT_EQ(fallbackRecords().size(), writes - sent);
}

TEST(StoppedAgentTest, GivesAWriteErrorWhenItsBacklogIsFull) {
    std::vector<int> sockets = {openEndpoint(kUnix, 0)};
    const auto* address = reinterpret_cast<const sockaddr*>(&kUnixAddress);
    do {
        sockets.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    } while (connect(sockets.back(), address, sizeof(kUnixAddress)) == 0);
    CLogger logger(kUnix);
    EXPECT_EQ(logger.init(kName), 0);
    EXPECT_EQ(logger.write_baselog(LT_NORMAL, "body", false, 1), 8);
    EXPECT_EQ(logger.get_errmsg(), "sendWithoutRecv buff length 28, write res 0");
    for (const int fd : sockets) {
        close(fd);
    }
}

/// Errors are numbered upwards in each thread. One that is seen when its thread has finished a
/// later failure was left by another's failure, which it does not belong to.
TEST(ErrorTextTest, BelongsToItsFailureWhileOtherThreadsFail) {
    CLogger logger(kUdp);
    EXPECT_EQ(logger.init(kName), 0);
    sendFails = true;
    const int span = 1000000;
    std::array<std::atomic<int>, kThreads> finished{};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            ownError = span * (thread + 1);
            for (unsigned i = 0; i < kRecords; ++i) {
                EXPECT_EQ(logger.write_baselog(LT_NORMAL, "body", false, 1), 17);
                finished[thread] = ownError;
                const std::vector<int> before(finished.begin(), finished.end());
                const std::string text = logger.get_errmsg();
                int error = 0;
                sscanf(text.c_str(), "send udp message failed error[%d]", &error);
                EXPECT_NE(text.find("errmsg[Unknown error " + std::to_string(error) + "]"),
                          text.npos);
                EXPECT_GE(error, before.at(error / span - 1));
            }
        });
    }
    std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
    sendFails = false;
}

}  // namespace
}  // namespace Quorvel
