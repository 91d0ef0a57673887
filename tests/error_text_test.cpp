#include <array>

#include "support.h"

namespace {

QUORVEL_REAL(pthread_rwlock_unlock);
QUORVEL_REAL(pthread_rwlock_wrlock);
QUORVEL_REAL(send);

std::atomic<bool> sendFails{false};
thread_local int ownError = 0;
std::atomic<bool> holdsLonger{false};  ///< locks are held 100 us longer

}  // namespace

extern "C" {

// Each failing send has an error number of its own.
ssize_t send(int fd, const void* data, size_t length, int flags) {
    if (!sendFails) {
        return real_send(fd, data, length, flags);
    }
    errno = ++ownError;
    return -1;
}

// Now and then lets the other threads leave their texts first.
int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
    thread_local unsigned calls = 0;
    if (sendFails && ++calls % 99 == 0) {
        usleep(10);
    }
    return real_pthread_rwlock_wrlock(lock);
}

int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    if (holdsLonger) {
        usleep(100);
    }
    return real_pthread_rwlock_unlock(lock);
}

}  // extern "C"

namespace Quorvel {
namespace {

const int kThreads = 8;
const int kCalls = kIsSanitized ? 2000 : 20000;

/// Errors are numbered upwards in each thread. One that is seen when its thread has finished a
/// later failure was left by another's failure, which it does not belong to.
TEST(ErrorTextTest, BelongsToItsFailureWhileOtherThreadsFail) {
    CLogger logger(kUdp);
    EXPECT_EQ(logger.init("app"), 0);
    sendFails = true;
    const int span = 1000000;
    std::array<std::atomic<int>, kThreads> finished{};
    onThreads(kThreads, [&](int thread) {
        ownError = span * (thread + 1);
        for (int i = 0; i < kCalls; ++i) {
            EXPECT_EQ(logger.write_baselog(LT_NORMAL, "body", false, 1), 17);
            finished[thread] = ownError;
            const std::vector<int> before(finished.begin(), finished.end());
            const std::string text = logger.get_errmsg();
            int error = 0;
            sscanf(text.c_str(), "send udp message failed error[%d]", &error);
            EXPECT_NE(text.find("errmsg[Unknown error " + std::to_string(error) + "]"), text.npos);
            EXPECT_GE(error, before.at(error / span - 1));
        }
    });
    sendFails = false;
}

/// Threads that fail and threads that read the error text, as fast as they can.
class ContendedErrorTextTest : public testing::Test {
 protected:
    ContendedErrorTextTest() { holdsLonger = true; }
    ~ContendedErrorTextTest() override { holdsLonger = false; }

    void start(int readers, int writers) {
        const auto work = [=](int thread) {
            while (!m_done) {
                if (thread < readers) {
                    m_logger.get_errmsg();
                } else {
                    EXPECT_EQ(m_logger.set_stat(true, 1, 1, 1), 1);
                }
                ++m_turns[thread];
                ++m_allTurns;
            }
        };
        m_threads = std::thread(onThreads, readers + writers, work);
    }

    void stopAfter(int turns) {
        EXPECT_TRUE(eventually([=] { return m_allTurns >= turns; }));
        m_done = true;
        m_threads.join();
    }

    CLogger m_logger;
    std::array<std::atomic<int>, kThreads> m_turns{};
    std::atomic<int> m_allTurns{0};
    std::atomic<bool> m_done{false};
    std::thread m_threads;
};

TEST_F(ContendedErrorTextTest, KeepsNeitherReadersNorWritersOut) {
    const int turns = 2000;
    start(2, 3);
    stopAfter(turns);
    EXPECT_GE(*std::min_element(m_turns.begin(), m_turns.begin() + 5), turns / 50);
}

TEST_F(ContendedErrorTextTest, KeepsNoForkWaiting) {
    for (const int readers : {0, kThreads}) {
        start(readers, kThreads - readers);
        for (int i = 0; i < 20; ++i) {
            const int before = m_allTurns;
            awaitChild(runInChild([&] { EXPECT_LE(m_allTurns, before + 10000); }));
        }
        stopAfter(0);
        m_done = false;
    }
}

}  // namespace
}  // namespace Quorvel
