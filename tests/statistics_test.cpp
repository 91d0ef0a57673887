#include "support.h"

namespace {

QUORVEL_REAL(pthread_cond_clockwait);
QUORVEL_REAL(pthread_create);
QUORVEL_REAL(send);

std::atomic<int> startError{0};  ///< of the next starts of a statistics thread
std::string textAtStart;         ///< the logger's last error text when a thread was started
std::atomic<bool> blocksSignals{false};
std::atomic<int> throwingSend{0};  ///< which one from now on runs out of memory
std::atomic<bool> isSlow{false};   ///< each send takes 200 ms
std::atomic<int> sends{0};
std::atomic<int> pauseAsked{0};  ///< the last one, in milliseconds

}  // namespace

extern "C" {

int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    if (start == StartStatThreads) {
        textAtStart = static_cast<Quorvel::CLogger*>(argument)->get_errmsg();
        if (startError != 0) {
            return startError;
        }
    }
    return real_pthread_create(id, attributes, start, argument);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* end) {
    timespec start;
    clock_gettime(clock, &start);
    pauseAsked = static_cast<int>((end->tv_sec - start.tv_sec) * 1000 +
                                  (end->tv_nsec - start.tv_nsec) / 1000000);
    return real_pthread_cond_clockwait(condition, mutex, clock, end);
}

ssize_t send(int fd, const void* data, size_t length, int flags) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    blocksSignals = sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGRTMAX) == 1;
    ++sends;
    if (isSlow) {
        usleep(200000);
    }
    if (throwingSend > 0 && --throwingSend == 0) {
        throw std::bad_alloc();
    }
    return real_send(fd, data, length, flags);
}

}  // extern "C"

namespace Quorvel {
namespace {

using Values = std::map<std::string, int>;
using Texts = std::vector<std::string>;

const int kScale = kIsSanitized ? 10 : 1;
const int8_t kType = 5;
const unsigned int kTime = 1000;

/// The clock stands still, statistics are on, and their thread has begun its pause.
class StatisticsTest : public testing::Test {
 protected:
    StatisticsTest() {
        now = kTime;
        startError = 0;
        makeFallbackDirectory();
        restart(60, 100);
    }

    int setStat(unsigned int interval = 60, unsigned int count = 100) {
        return keepingErrno([&] { return m_logger->set_stat(true, kType, interval, count); });
    }

    /// A new logger, whose statistics thread has found nothing yet.
    void restart(unsigned int interval, unsigned int count) {
        restartWith({});
        pauseAsked = 0;
        EXPECT_EQ(setStat(interval, count), 0);
        EXPECT_TRUE(eventually([] { return pauseAsked > 0; }));
    }

    /// A new logger, without a thread, with closed batches of these texts.
    void restartWith(const std::vector<Texts>& batches) {
        m_logger = std::make_unique<CLogger>();
        EXPECT_EQ(m_logger->init("app"), 0);
        for (const Texts& texts : batches) {
            close(texts);
        }
    }

    /// A batch of these texts, for the logger's statistics thread to find.
    void close(const Texts& texts) {
        pthread_rwlock_wrlock(&m_logger->m_queue_lock);
        m_logger->m_stat_log_queues.emplace();
        for (const std::string& text : texts) {
            m_logger->m_stat_log_queues.back()[text] = {};
        }
        pthread_rwlock_unlock(&m_logger->m_queue_lock);
    }

    int merge(const std::string& text, Values values = {}, int kind = QV_STAT_TYPE_SUM,
              unsigned int time = kTime) {
        return keepingErrno([&] { return m_logger->write_statlogs(text, values, kind, time); });
    }

    int mergeAt(unsigned int time, const std::string& text) {
        return merge(text, {}, QV_STAT_TYPE_COUNT, time);
    }

    /// What the agent gets of all batches. One more thread looks for them at once.
    Texts written() {
        mergeAt(0, "last");
        mergeAt(kTime, "never written");
        setStat();
        EXPECT_TRUE(eventually([&] { return arrived().back() == "last"; }));
        Texts texts = arrived();
        texts.pop_back();
        return {texts.begin() + 1, texts.end()};
    }

    /// The texts that the agent got, after an empty one.
    Texts arrived() const {
        Texts texts = {""};
        for (const Request& record : m_agent.records()) {
            texts.push_back(record.body);
        }
        return texts;
    }

    TestAgent m_agent{kUnix};
    std::unique_ptr<CLogger> m_logger;
};

TEST_F(StatisticsTest, CombineValuesByTheirKind) {
    const std::tuple<const char*, int, std::vector<int>, const char*> rows[] = {
        {"a", QV_STAT_TYPE_COUNT, {1, 3}, "a&n=4"},
        {"b", QV_STAT_TYPE_SUM, {1, 3}, "b&n=4"},
        {"c", QV_STAT_TYPE_SUM, {INT32_MAX, 1}, "c&n=-2147483648"},
        {"d", QV_STAT_TYPE_SUM, {INT32_MIN, -1}, "d&n=2147483647"},
        {"e", QV_STAT_TYPE_MAX, {7, 3, -5, 9}, "e&n=9"},
        {"f", QV_STAT_TYPE_MIN, {7, 3, -5, 9}, "f&n=-5"},
        {"g", -1, {1}, "g"},
        {"h", 4, {1}, "h"},
    };
    Texts expected;
    for (const auto& [text, kind, values, combined] : rows) {
        for (const int value : values) {
            merge(text, {{"n", value}}, kind);
        }
        expected.push_back(combined);
    }
    EXPECT_EQ(written(), expected);
}

TEST_F(StatisticsTest, AreWrittenWithTheirTypeAndTheCurrentTime) {
    mergeAt(kTime + 1, "text");
    written();
    const Request record = m_agent.records()[0];
    EXPECT_EQ(record.logType, kType);
    EXPECT_EQ(record.timestamp, kTime);
}

struct ClosingRow {
    unsigned int interval, count;
    std::vector<std::pair<unsigned int, const char*>> merges;  ///< at a time, into a text
    Texts written;
};

class ClosingTest : public StatisticsTest, public testing::WithParamInterface<ClosingRow> {};

INSTANTIATE_TEST_SUITE_P(
    , ClosingTest,
    testing::Values(
        ClosingRow{60, 100, {{1059, "b"}, {1060, "a"}, {1119, "c"}}, {"b", "a", "c"}},
        ClosingRow{60, 100, {{1000, "b"}, {999, "a"}}, {"b", "a"}},
        ClosingRow{60, 2, {{1000, "c"}, {1000, "c"}, {1000, "b"}, {1000, "a"}}, {"b", "c", "a"}},
        ClosingRow{0, 100, {{1000, "a"}, {1000, "a"}}, {"a", "a"}},
        ClosingRow{60, 0, {{1000, "a"}, {1000, "a"}}, {"a", "a"}}));

TEST_P(ClosingTest, ComesWithTheAgeAndTheNumberOfTexts) {
    restart(GetParam().interval, GetParam().count);
    for (const auto& [time, text] : GetParam().merges) {
        mergeAt(time, text);
    }
    EXPECT_EQ(written(), GetParam().written);
}

TEST_F(StatisticsTest, AreWrittenInTheOrderOfTheirBytes) {
    for (const char* const text : {"b", "a\x80", "aa", "a"}) {
        mergeAt(kTime, text);
    }
    merge("c", {{"\xFF", 1}, {"y", 2}, {"yy", -3}});
    EXPECT_EQ(written(), Texts({"a", "aa", "a\x80", "b", "c&y=2&yy=-3&\xFF=1"}));
}

TEST_F(StatisticsTest, AreCutAt1023Characters) {
    const std::string fits(1023 - strlen("a&=7"), 'n'), tooLong(fits + 'n');
    merge("a", {{fits, 7}});
    merge("b", {{tooLong, 7}});
    EXPECT_EQ(written(), Texts({"a&" + fits + "=7", "b&" + tooLong + "="}));
}

TEST_F(StatisticsTest, AreCutAtNulsAndEscapeNothing) {
    using namespace std::string_literals;
    merge("a&=%\0x"s, {{"%d&=\0n"s, 1}});
    EXPECT_EQ(written(), Texts({"a&=%&%d&==1"}));
}

TEST_F(StatisticsTest, NeedAnInitialisedLogger) {
    m_logger = std::make_unique<CLogger>();
    EXPECT_EQ(setStat(), 1);
    EXPECT_EQ(m_logger->get_errmsg(), "writebaselog: is not init");
}

TEST_F(StatisticsTest, AreRefusedWhileTheyAreOff) {
    EXPECT_EQ(m_logger->set_stat(false, kType, 60, 100), 0);
    EXPECT_EQ(merge("text"), 1);
    EXPECT_EQ(m_logger->get_errmsg(), "write statlog: is not open, please call set_stat(true)");
}

TEST_F(StatisticsTest, NeedAText) {
    EXPECT_EQ(merge(""), 2);
    EXPECT_EQ(m_logger->get_errmsg(), "write_baselog: data empty");
}

/// Statistics are on, but no thread could be started.
class WithoutThreadTest : public StatisticsTest {
 protected:
    WithoutThreadTest() {
        restartWith({});
        startError = EAGAIN;
        EXPECT_EQ(setStat(), EAGAIN);
    }
};

TEST_F(WithoutThreadTest, StatisticsAreOnAllTheSame) {
    EXPECT_EQ(m_logger->get_errmsg(), "start statistical thread error");
    EXPECT_EQ(merge("text"), 0);
}

TEST_F(WithoutThreadTest, TheNextClosingSaysSoAndThenStartsOne) {
    startError = 0;
    EXPECT_EQ(mergeAt(kTime + 60, "text"), 0);
    EXPECT_EQ(textAtStart, "the statistical thread did not exists or already quit");
    EXPECT_EQ(m_logger->get_errmsg(), textAtStart);
}

TEST_F(WithoutThreadTest, AClosingMergesNothingWhenNoneStarts) {
    merge("text", {{"n", 1}});
    EXPECT_EQ(merge("text", {{"n", 1}}, QV_STAT_TYPE_SUM, kTime + 60), EAGAIN);
    EXPECT_EQ(m_logger->get_errmsg(), "start statistical thread again error");
    startError = 0;
    mergeAt(kTime + 60, "next");
    EXPECT_TRUE(eventually([&] { return arrived().back() == "text&n=1"; }));
}

TEST_F(StatisticsTest, LoseOnlyTheRecordThatRunsOutOfMemory) {
    restartWith({{"a", "b"}, {"c"}});
    throwingSend = 1;
    setStat();
    EXPECT_TRUE(eventually([&] { return arrived() == Texts({"", "b", "c"}); }));
}

TEST_F(StatisticsTest, AreTakenFromTheQueueUnderItsLock) {
    pthread_rwlock_wrlock(&m_logger->m_queue_lock);
    m_logger->m_stat_log_queues.push({{"text", {}}});
    setStat();
    usleep(100000);
    EXPECT_EQ(m_agent.recordCount(), 0U);
    pthread_rwlock_unlock(&m_logger->m_queue_lock);
    EXPECT_TRUE(m_agent.hasReceived(1));
}

TEST_F(StatisticsTest, AreLookedForOnceASecond) {
    EXPECT_LE(pauseAsked, 1000);
    EXPECT_GT(pauseAsked, 100);
    close({"text"});
    EXPECT_TRUE(m_agent.hasReceived(1));
}

TEST_F(StatisticsTest, AreWrittenWithAllSignalsBlocked) {
    mergeAt(kTime, "text");
    written();
    EXPECT_TRUE(blocksSignals);
    EXPECT_EQ(m_logger->write_baselog(LT_NORMAL, "own", false, 1), 0);
    EXPECT_FALSE(blocksSignals);
}

TEST_F(StatisticsTest, LoseNoMergeOfFourThreads) {
    const int merges = 200000 / kScale;
    restart(1, 100);
    std::atomic<int> next{0};
    onThreads(4, [&](int) {
        for (int n = next++; n < merges; n = next++) {
            merge("text", {{"n", 1}}, QV_STAT_TYPE_SUM, kTime + n / 1000);
        }
    });
    mergeAt(0, "closes");
    const auto sum = [&] {
        int all = 0;
        for (const std::string& text : arrived()) {
            all += text.empty() ? 0 : atoi(text.c_str() + strlen("text&n="));
        }
        return all;
    };
    EXPECT_TRUE(eventually([&] { return sum() == merges; })) << sum();
}

TEST_F(StatisticsTest, HaveTheNewestLivingThreadInTheGlobalName) {
    const auto& newest = *static_cast<pthread_t*>(dlsym(RTLD_DEFAULT, "stat_pid"));
    const pthread_t own = newest;
    {
        CLogger shortLived;
        EXPECT_EQ(shortLived.init("short"), 0);
        EXPECT_EQ(shortLived.set_stat(true, kType, 0, 0), 0);
        EXPECT_NE(newest, own);
    }
    EXPECT_EQ(newest, own);
    m_logger.reset();
    EXPECT_EQ(newest, ~pthread_t{0});
}

TEST_F(StatisticsTest, DoNotLetIdleLoggersWaitForTheirEnd) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i) {
        restart(60, 100);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(StatisticsTest, EndABusyThreadAfterTheRecordInHand) {
    restartWith({{"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}});
    isSlow = true;
    sends = 0;
    setStat();
    EXPECT_TRUE(eventually([] { return sends > 0; }));
    m_logger.reset();
    isSlow = false;
    EXPECT_LT(sends, 10);
    EXPECT_TRUE(m_agent.hasReceived(sends));
}

/// Ends the process while its statistics thread is busy.
void exitBusily(int microseconds) {
    static CLogger* const neverDestroyed = new CLogger;
    neverDestroyed->init("app");
    for (int i = 0; i < 30000; ++i) {
        neverDestroyed->m_stat_log_queues.push({{"data", {{"n", 1}}}});
    }
    neverDestroyed->set_stat(true, kType, 0, 0);
    usleep(microseconds);
    exit(42);
}

TEST(ProcessEndTest, KeepsItsStatusWhileAStatisticsThreadIsBusy) {
    // ThreadSanitizer bears no new thread in a process that was only forked.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int i = 0; i < 100 / kScale; ++i) {
        EXPECT_EXIT(exitBusily(i * 50 * kScale), testing::ExitedWithCode(42), "") << i;
    }
}

}  // namespace
}  // namespace Quorvel
