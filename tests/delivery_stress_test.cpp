#include "support.h"

namespace Quorvel {
namespace {

const unsigned kRecords = kIsSanitized ? 5000 : 50000;
const int8_t kThreads = 8;
const int kDisturbances = 30;
const std::string kName = "stress";
const std::string kLastBody = "last";

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
        makeFallbackDirectory();
        now = 1000000;
        EXPECT_EQ(m_logger->init(kName), 0);
    }

    void writeAll(int thread) {
        int order = 0;
        for (unsigned i = 0; i < kRecords || !m_disturbed; ++i) {
            const int code =
                m_logger->write_baselog(static_cast<int8_t>(thread), makeBody(thread, i), false, i);
            m_writes[thread].push_back({code, order});
            if (code == 0) {
                ++order;
            } else {
                ++m_failures;
            }
        }
    }

    /// In turn takes the agent away until writes fail, has it stall that long, cuts connections.
    void disturb(int turn) {
        const size_t arrived = m_agent.recordCount() + (m_isStream ? kRecords / 20 : 100);
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
        const unsigned before = m_failures;
        EXPECT_TRUE(afterBackOffs([&] { return m_failures >= before + count; }));
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
        return eventually([&] {
            now += 3;
            return condition();
        });
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
    void countArrivals(const Conversation& heard) {
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

    /// What failed went to the fallback file, over a stream, and nowhere else.
    void check(const Write& write) const {
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
    std::atomic<unsigned> m_failures{0};
    std::atomic<bool> m_disturbed{false};
};

INSTANTIATE_TEST_SUITE_P(, DeliveryStressTest, testing::Values(kUnix, kTcp, kUdp));

TEST_P(DeliveryStressTest, KeepsRecordsWholeAndSingleWhileTheAgentComesAndGoes) {
    std::thread writers([this] { onThreads(kThreads, [this](int thread) { writeAll(thread); }); });
    for (int turn = 0; turn < kDisturbances && !HasFailure(); ++turn) {
        disturb(turn);
    }
    m_disturbed = true;
    writers.join();
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
        countArrivals(heard);
    }
    for (const auto& writes : m_writes) {
        for (const Write& write : writes) {
            check(write);
        }
    }
}

}  // namespace
}  // namespace Quorvel
