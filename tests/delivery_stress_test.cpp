#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <set>

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

int connect(int fd, const sockaddr* address, socklen_t length) {
    return ++socketCalls, Quorvel::callReal<int>("connect", fd, address, length);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
    return ++socketCalls, Quorvel::callReal<int>("poll", entries, count, timeout);
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const unsigned kRecords = 5000;
#else
const unsigned kRecords = 50000;
#endif
const int8_t kThreads = 8;
const int kDisturbances = 30;
const std::string kName = "stress";
const std::string kLastBody = "last";

void startAnew() {
    const std::filesystem::path file = kFallbackFile;
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::remove(file);
    now = 1000000;
}

std::vector<Request> readFallbackFile() {
    std::ifstream file(kFallbackFile, std::ios::binary);
    std::vector<Request> records;
    for (uint32_t length; file.read(reinterpret_cast<char*>(&length), sizeof(length));) {
        std::string request(length, 0);
        std::string error = "the file ends inside a record";
        records.emplace_back();
        EXPECT_TRUE(file.read(request.data(), length) &&
                    decodeRequest(request.data(), length, records.back(), error))
            << error;
    }
    EXPECT_EQ(file.gcount(), 0) << "bytes of no record at the file's end";
    return records;
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
        for (++m_started; m_started < kThreads;) {
            std::this_thread::yield();
        }
        int order = 0;
        for (unsigned i = 0; i < kRecords || !m_disturbed; ++i) {
            const int code = m_logger->write_baselog(thread, makeBody(thread, i), false, i);
            m_writes[thread].push_back({code, order});
            code == 0 ? ++order : ++m_failures;
        }
    }

    /// In turn takes the agent away until writes fail, has it stall that long, cuts connections.
    void disturb(int turn) {
        const size_t arrived = m_agent.recordCount() + kRecords / 20;
        EXPECT_TRUE(afterBackOffs([&] { return m_agent.recordCount() > arrived; }));
        EXPECT_TRUE(eventually([&] { return m_agent.openConnections() <= 1; }));
        if (!m_isStream || turn % 3 == 0) {
            m_agent.stop();
            awaitFailures(kRecords / 50);
            m_agent.start();
        } else if (turn % 3 == 1) {
            m_agent.pause();
            awaitFailures(1);
            m_agent.proceed();
        } else {
            m_agent.cut();
        }
        now += 3;
    }

    void awaitFailures(unsigned count) {
        const unsigned failures = m_failures + count;
        EXPECT_TRUE(afterBackOffs([&] { return m_failures >= failures; }));
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
        EXPECT_EQ(heard.malformed(), "");
        EXPECT_TRUE(m_isStream || heard.remainder() == 0) << "a datagram was cut short";
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

    void checkWrite(const Write& write) const {
        const bool failed = m_isStream ? write.code == 7 || write.code == 8 : write.code == 17;
        ASSERT_TRUE(failed || write.code == 0) << write.code;
        ASSERT_LE(write.arrivals, failed ? 0 : 1) << write.code;
        ASSERT_EQ(write.copies, failed && m_isStream ? 1 : 0) << write.code;
    }

    const bool m_isStream = GetParam() != kUdp;
    const ptrdiff_t m_filesBefore = openFiles();
    TestAgent m_agent{GetParam()};
    std::unique_ptr<CLogger> m_logger = std::make_unique<CLogger>(GetParam());
    std::vector<Write> m_writes[kThreads];
    std::map<int, int> m_nextOrders;  ///< of each thread, where it is known
    std::atomic<int> m_started{0};
    std::atomic<unsigned> m_failures{0};
    std::atomic<bool> m_disturbed{false};
};

std::string nameOf(const testing::TestParamInfo<Transport>& row) {
    const char* const names[] = {"Unix", "Tcp", "Udp"};
    return names[row.param];
}

INSTANTIATE_TEST_SUITE_P(, DeliveryStressTest, testing::Values(kUnix, kTcp, kUdp), nameOf);

TEST_P(DeliveryStressTest, KeepsRecordsWholeAndSingleWhileTheAgentComesAndGoes) {
    std::vector<std::thread> threads;
    for (int8_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i] { writeAll(i); });
    }
    for (int turn = 0; turn < kDisturbances && !HasFailure(); ++turn) {
        disturb(turn);
    }
    m_disturbed = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    receiveTheRest();
    const auto conversations = m_agent.conversations();
    m_agent.stop();
    EXPECT_EQ(openFiles(), m_filesBefore);

    for (const Request& record : readFallbackFile()) {
        if (Write* const write = find(record)) {
            ++write->copies;
        }
    }
    for (const Conversation& heard : conversations) {
        checkArrivals(heard);
    }
    for (const auto& next : m_nextOrders) {
        const Write& last = m_writes[next.first].back();
        EXPECT_TRUE(!m_isStream || next.second == last.order + (last.code == 0));
    }
    for (const auto& writes : m_writes) {
        std::for_each(writes.begin(), writes.end(),
                      [this](const Write& write) { checkWrite(write); });
    }
}

/// A child that serves the Unix socket and was stopped by a signal.
pid_t startStoppedAgent() {
    const int listener = openEndpoint(kUnix);
    const pid_t child = fork();
    while (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pause();
    }
    close(listener);
    kill(child, SIGSTOP);
    waitpid(child, nullptr, WUNTRACED);
    return child;
}

TEST(StoppedAgentTest, CostsOneShortWaitAndThenNoSocketCall) {
    const size_t writes = 10000;
    const std::string body(1000, 'x');
    const pid_t agent = startStoppedAgent();
    startAnew();
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
    EXPECT_GT(sent, 100U);
    std::vector<int> expected(sent, 0);
    expected.push_back(8);
    expected.resize(writes, 7);
    EXPECT_EQ(codes, expected);
    EXPECT_EQ(socketCalls, callsAtFailure);
    EXPECT_EQ(readFallbackFile().size(), writes - sent);
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
                const std::string digits = std::to_string(error);
                EXPECT_EQ(text, "send udp message failed error[" + digits +
                                    "] errmsg[Unknown error " + digits + "]");
                EXPECT_GE(error, before.at(error / span - 1));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    sendFails = false;
}

}  // namespace
}  // namespace Quorvel
