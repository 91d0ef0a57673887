#include <array>

#include "support.h"

namespace {

QUORVEL_REAL(send);

std::atomic<bool> held{false};              ///< sends wait
std::atomic<int> sendTime{0};               ///< that each send takes, in microseconds
std::array<std::atomic<int>, 120> senders;  ///< by the log type that they write, in their order
std::atomic<size_t> sends{0};

}  // namespace

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    while (held) {
        usleep(100);
    }
    usleep(sendTime);
    const size_t number = sends++;
    if (number < senders.size()) {
        senders[number] = static_cast<const char*>(data)[1] & 0x7F;
    }
    return real_send(fd, data, length, flags);
}

namespace Quorvel {
namespace {

const int kThreads = 8;

/// How often, at most, one thread sends between two of another's next sends.
int mostTurnsBetween() {
    sends = 0;
    EXPECT_TRUE(eventually([] { return sends >= senders.size(); }));
    int most = 0;
    int turns[kThreads][kThreads] = {};  // of the second since the last one of the first
    for (const int sender : senders) {
        for (auto& others : turns) {
            most = std::max(most, ++others[sender]);
        }
        std::fill(std::begin(turns[sender]), std::end(turns[sender]), 0);
    }
    return most;
}

/// One logger for all threads, over the Unix stream.
class TurnsTest : public testing::Test {
 protected:
    TurnsTest() {
        now = 1000;
        sends = sendTime = handlersChild = 0;
        makeFallbackDirectory();
        EXPECT_EQ(m_logger.init("app"), 0);
    }

    int write(int thread) {
        return m_logger.write_baselog(static_cast<int8_t>(thread), "body", false, 1);
    }

    void writeOnThreads(int sendMicroseconds) {
        sendTime = sendMicroseconds;
        m_writers = std::thread([this] {
            onThreads(kThreads, [this](int thread) {
                ++m_started;
                while (!m_done) {
                    ++m_codes[write(thread)];
                }
            });
        });
        EXPECT_TRUE(eventually([this] { return m_started == kThreads; }));
    }

    void stopWriting() {
        m_done = true;
        m_writers.join();
    }

    /// One thread stays in its send, and behind it `count` wait for their turns.
    void holdTurnBefore(int count) {
        held = true;
        for (int i = 0; i <= count; ++i) {
            m_waiting.emplace_back([this, i] { ++m_codes[write(i)]; });
            EXPECT_TRUE(eventually([i] { return waiters() == i; }));
        }
    }

    void releaseTurn() {
        held = false;
        for (std::thread& thread : m_waiting) {
            thread.join();
        }
    }

    TestAgent m_agent{kUnix};
    CLogger m_logger;
    std::atomic<int> m_started{0};
    std::atomic<bool> m_done{false};
    std::thread m_writers;
    std::vector<std::thread> m_waiting;
    std::array<std::atomic<int>, 21> m_codes{};  ///< how often each was returned
};

// A newcomer may pass a waiter for 1.5 ms for each of at most seven places: five times at sends of
// 2 ms. A waiter that gets no processor is passed more often, so most rounds have to show the
// order.
TEST_F(TurnsTest, ComeBeforeAnotherThreadHasHadMoreThanAFew) {
    writeOnThreads(2000);
    std::array<int, 7> rounds;
    std::generate(rounds.begin(), rounds.end(), mostTurnsBetween);
    stopWriting();
    std::sort(rounds.begin(), rounds.end());
    EXPECT_LE(rounds[3], 8);
}

// It is cancelled in its send, which closes the connection.
TEST_F(TurnsTest, GoOnWhenAWaiterIsCancelled) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizers take a cancelled call's unwinding for an error";
    }
    holdTurnBefore(3);
    now += 4;
    pthread_cancel(m_waiting[2].native_handle());
    releaseTurn();
    EXPECT_EQ(m_codes[0], 3);
    EXPECT_EQ(write(1), 0);
    EXPECT_TRUE(m_agent.hasReceived(4));
}

TEST_F(TurnsTest, AreNotWaitedForByAForkOfASignalHandlerInAWaiter) {
    signal(SIGUSR1, forkInHandler);
    holdTurnBefore(2);
    pthread_kill(m_waiting[1].native_handle(), SIGUSR1);
    EXPECT_TRUE(eventually([] { return handlersChild == 42; }));
    releaseTurn();
    EXPECT_EQ(m_codes[0], 3);
}

TEST_F(TurnsTest, LetAForkPassAndAreFreeInItsChild) {
    writeOnThreads(2000);
    for (int i = 0; i < 20; ++i) {
        const size_t before = sends;
        awaitChild(runInChild([&] {
            EXPECT_LE(sends - before, 10U * kThreads);
            EXPECT_EQ(write(0), 0);
        }));
    }
    stopWriting();
}

TEST_F(TurnsTest, MissOneRecordAtMostAtARestartOfTheAgent) {
    const int kRestarts = 50;
    writeOnThreads(1000);
    for (int i = 0; i < kRestarts; ++i) {
        const size_t before = m_agent.recordCount();
        now += 4;
        m_agent.cut();
        EXPECT_TRUE(m_agent.hasReceived(before + 20));
    }
    stopWriting();
    EXPECT_LE(m_codes[8], kRestarts);
    EXPECT_EQ(m_codes[7], 0);
}

}  // namespace
}  // namespace Quorvel
