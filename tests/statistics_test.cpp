#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "qvapi_cpp.h"
#include "support.h"
#include "test_agent.h"

namespace {

std::atomic<int> startError{0};
std::atomic<int> throwingSend{0};  ///< which one from now on runs out of memory
std::atomic<bool> agentIsSlow{false}, blocksSignals{false};
std::atomic<size_t> slowSends{0};

void* runStatThread(void* logger) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    blocksSignals = sigismember(&blocked, SIGTERM) + sigismember(&blocked, SIGRTMAX) == 2;
    return StartStatThreads(logger);
}

}  // namespace

extern "C" int pthread_create(pthread_t* id, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    if (start != StartStatThreads) {
        return Quorvel::callReal<int>("pthread_create", id, attributes, start, argument);
    }
    return startError != 0
               ? startError.load()
               : Quorvel::callReal<int>("pthread_create", id, attributes, runStatThread, argument);
}

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    if (agentIsSlow) {
        usleep(20000);
        ++slowSends;
    }
    if (throwingSend > 0 && --throwingSend == 0) {
        throw std::bad_alloc();
    }
    return Quorvel::callReal<ssize_t>("send", fd, data, length, flags);
}

namespace Quorvel {
namespace {

const int kScale = kIsSanitized ? 10 : 1;
const unsigned int kTime = 1000;
const pthread_t kNoThread = ~pthread_t{0};

/// Performs "init NAME", "on TYPE", "off TYPE" or a merge: "TIME TEXT KIND [NAME=VALUE...]".
int perform(CLogger& logger, const std::string& call, unsigned int interval = 0, int count = 0) {
    std::istringstream words(call);
    std::string verb, data, pair;
    std::map<std::string, int> values;
    int kind = 0;
    words >> verb >> data >> kind;
    while (words >> pair) {
        values[pair.substr(0, pair.rfind('='))] = std::stoi(pair.substr(pair.rfind('=') + 1));
    }
    return keepingErrno([&] {
        return verb == "init" ? logger.init(data)
               : verb == "on" || verb == "off"
                   ? logger.set_stat(verb == "on", static_cast<int8_t>(atoi(data.c_str())),
                                     interval, count)
                   : logger.write_statlogs(data, values, kind,
                                           static_cast<unsigned int>(atoi(verb.c_str())));
    });
}

pthread_t statPid() { return *static_cast<pthread_t*>(dlsym(RTLD_DEFAULT, "stat_pid")); }

size_t countThreads() {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

long residentPages() {
    long size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident;
}

/// The texts of the records, by application.
std::map<std::string, std::string> textsOf(const TestAgent& agent, int type) {
    std::map<std::string, std::string> texts;
    for (const Request& record : agent.records()) {
        EXPECT_TRUE(record.logType == type && record.command == 3 && record.timestamp == kTime);
        texts[record.application] += record.body + " ";
    }
    return texts;
}

/// The clock stands still, and no statistics thread runs.
class StatisticsTest : public testing::Test {
 protected:
    StatisticsTest() {
        now = kTime;
        EXPECT_EQ(m_logger->init("app"), 0);
        EXPECT_EQ(statPid(), kNoThread);
    }

    TestAgent m_agent{kUnix};
    std::unique_ptr<CLogger> m_logger = std::make_unique<CLogger>();
};

TEST_F(StatisticsTest, MergesValuesAndWritesEachBatchAsRecords) {
    using namespace std::string_literals;
    const std::string s1500(1500, 's'), n1019(1019, 'n'), n1010(1010, 'n');
    const struct {
        unsigned int interval;
        int count;
        std::string calls, records;
    } rows[] = {
        {60, 100,
         "1010 login 1 fail=1 ok=3,1020 login 1 ok=2,1030 latency 3 ms=40,1040 latency 3 ms=25,"
         "1065 login 1 ok=1",
         "latency&ms=40 login&fail=1&ok=5 login&ok=1 "},
        {60, 9,
         "1001 a 2 n=7,1001 a 2 n=3,1001 a 2 n=9,1001 b 3 n=7,1001 b 3 n=9,1001 b 3 n=3 m=-5,1001 "
         "c 4 n=1",
         "a&n=3 b&m=-5&n=9 c "},
        {60, 9, "1 a 1 n=2147483647,1 a 0 n=1,1 b 0 n=-2147483648,1 b 1 n=-1",
         "a&n=-2147483648 b&n=2147483647 "},
        {60, 9, "1059 b 1,1060 a 1,1119 b 1,1120 a 1", "b a b a "},
        {0, 9, "1000 b 1,1000 a 1,1000 a 1", "b a a "},
        {60, 0, "1000 b 1,1000 a 1,1000 a 1", "b a a "},
        {60, 3, "1000 c 1,1000 b 1,1000 b 1,1000 a 1,1000 a 1", "a b c a "},
        {60, 9, "1000 b 1,999 a 1,1058 c 1,998 a 1", "b a c a "},
        {60, 9, "1000 b 1,1000 a\x80 1,1000 aa 1,1000 a 1 \xFF=1 y=2 yy=-3",
         "a&y=2&yy=-3&\xFF=1 aa a\x80 b "},
        {60, 9,
         "1000 " + s1500 + " 1 n=1,1000 a 1 z=1 " + n1019 + "=7,1000 b 1 z=1 " + n1010 + "=-123",
         "a&" + n1019 + "=7 b&" + n1010 + "=-123&z=1 " + s1500.substr(0, 1023) + " "},
        {60, 9, "1000 \0x 1,1000 \0y 1 n\0n=1,1000 a&=%\0b 1 %d&==1"s, "&n=1 a&=%&%d&==1 "},
    };
    std::vector<std::unique_ptr<CLogger>> loggers;
    std::map<std::string, std::string> expected;
    for (const auto& row : rows) {
        loggers.push_back(std::make_unique<CLogger>());
        const std::string name = std::to_string(&row - rows);
        ASSERT_EQ(perform(*loggers.back(), "init " + name), 0);
        ASSERT_EQ(perform(*loggers.back(), "on 5", row.interval, row.count), 0);
        std::istringstream calls(row.calls + ",1 closes 0,0 is-never-written 0");
        for (std::string call; getline(calls, call, ',');) {
            EXPECT_EQ(perform(*loggers.back(), call), 0);
        }
        expected[name] = row.records + "closes ";
    }
    EXPECT_TRUE(eventually([&] { return textsOf(m_agent, 5) == expected; }));
    EXPECT_EQ(textsOf(m_agent, 5), expected);
    EXPECT_EQ(loggers.back()->get_errmsg(), "write_baselog: data empty");
}

TEST_F(StatisticsTest, RefusesWithItsCodesAndMergesNothingThen) {
    const std::string off = "write statlog: is not open, please call set_stat(true)",
                      gone = "the statistical thread did not exists or already quit",
                      failed = "start statistical thread error",
                      failedAgain = "start statistical thread again error";
    const struct {
        std::string call;
        int startError, code;
        std::string text;
    } rows[] = {
        {"on 5", 0, 1, "writebaselog: is not init"},
        {"init app", 0, 0, "writebaselog: is not init"},
        {"1060 b 1 n=1", 0, 1, off},
        {"on 5", EAGAIN, EAGAIN, failed},
        {"", 0, 2, "write_baselog: data empty"},
        {"1000 a 1 n=1", EAGAIN, 0, "write_baselog: data empty"},
        {"1060 b 1 n=1", EPERM, EPERM, failedAgain},
        {"1000 a 1 n=1", EAGAIN, 0, failedAgain},
        {"off 6", EAGAIN, 0, failedAgain},
        {"1060 b 1 n=1", 0, 1, off},
        {"on 7", EINVAL, EINVAL, failed},
        {"1060 b 1 n=1", 0, 0, gone},
        {"1000 a 1 n=1", EAGAIN, 0, gone},
    };
    CLogger logger;
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        startError = row.startError;
        EXPECT_EQ(perform(logger, row.call, 60, 9), row.code);
        EXPECT_EQ(logger.get_errmsg(), row.text);
    }
    startError = 0;
    EXPECT_TRUE(eventually([&] { return textsOf(m_agent, 7)["app"] == "a&n=2 b&n=1 "; }));
}

TEST_F(StatisticsTest, LosesOnlyTheRecordThatRunsOutOfMemory) {
    const char* const outcomes[] = {"b c ", "a c ", "a b "};
    for (const auto& outcome : outcomes) {
        const std::string name = outcome;
        CLogger logger;
        ASSERT_EQ(logger.init(name), 0);
        logger.m_stat_log_queues.push({{"a", {}}, {"b", {}}});
        logger.m_stat_log_queues.push({{"c", {}}});
        throwingSend = static_cast<int>(&outcome - outcomes) + 1;
        ASSERT_EQ(perform(logger, "on 5"), 0);
        EXPECT_TRUE(eventually([&] { return textsOf(m_agent, 5)[name] == name; }));
    }
}

TEST_F(StatisticsTest, LosesNoMergeOfFourThreads) {
    const int kMerges = 1000000 / kScale;
    std::filesystem::create_directories("/data/qvagent");
    ASSERT_EQ(perform(*m_logger, "on 5", 1, INT32_MAX), 0);
    std::atomic<int> next{0};
    const auto work = [&] {
        for (int n = next++; n < kMerges; n = next++) {
            std::map<std::string, int> values = {{"n", n % 777 + 1}};
            m_logger->write_statlogs(std::to_string(n % 1000), values, 1, kTime + n / 1000);
        }
    };
    std::vector<std::thread> mergers;
    std::generate_n(std::back_inserter(mergers), 4, [&] { return std::thread(work); });
    std::for_each(mergers.begin(), mergers.end(), std::mem_fn(&std::thread::join));
    EXPECT_EQ(perform(*m_logger, "1 last 0"), 0);
    EXPECT_TRUE(eventually([&] {
        pthread_rwlock_rdlock(&m_logger->m_queue_lock);
        const bool isEmpty = m_logger->m_stat_log_queues.empty();
        pthread_rwlock_unlock(&m_logger->m_queue_lock);
        return isEmpty;
    }));
    std::vector<int64_t> handedOver(1000), written;
    for (int n = 0; n < kMerges; ++n) {
        handedOver[n % 1000] += n % 777 + 1;
    }
    EXPECT_TRUE(eventually([&] {
        written.assign(1000, 0);
        for (const auto& records : {m_agent.records(), fallbackRecords()}) {
            for (const Request& record : records) {
                written.at(stoi(record.body)) +=
                    stoi(record.body.substr(record.body.find('=') + 1));
            }
        }
        return written == handedOver;
    }));
}

TEST_F(StatisticsTest, LeavesNoThreadAndNoMemoryOfShortLivedLoggers) {
    m_agent.stop();
    const int kLoggers = 3000 / kScale;
    ASSERT_EQ(perform(*m_logger, "on 5"), 0);
    const pthread_t own = statPid();
    const size_t before = countThreads();
    long memory = 0;
    for (int i = 0; i < kLoggers; ++i) {
        CLogger logger;
        ASSERT_EQ(logger.init("short"), 0);
        EXPECT_EQ(perform(logger, "on 5"), 0);
        EXPECT_EQ(perform(logger, "on 5"), 0);
        EXPECT_EQ(perform(logger, "1 a 0"), 0);
        EXPECT_EQ(perform(*m_logger, "1 a 0"), 0);
        memory = i == kLoggers / 10 ? residentPages() : memory;
    }
    EXPECT_TRUE(eventually([&] { return countThreads() == before; }));
    EXPECT_EQ(statPid(), own);
    EXPECT_EQ(pthread_kill(own, 0), 0);
    EXPECT_TRUE(kIsSanitized || residentPages() < memory + 1024);
}

TEST_F(StatisticsTest, EndsIdleThreadsAtOnceAndBusyOnesAfterTheRecordInHand) {
    const auto destroy = [&] {
        const auto start = std::chrono::steady_clock::now();
        m_logger = std::make_unique<CLogger>();
        EXPECT_EQ(m_logger->init("app"), 0);
        return std::chrono::steady_clock::now() - start;
    };
    const size_t before = countThreads();
    auto waited = destroy();
    for (size_t i = 1; i <= 10; ++i) {
        m_logger->m_stat_log_queues.push({{"a", {}}});
        EXPECT_EQ(perform(*m_logger, "on 5"), 0);
        EXPECT_EQ(perform(*m_logger, "on 5"), 0);
        EXPECT_TRUE(eventually([&] { return m_agent.recordCount() == i; }));
        waited += destroy();
    }
    EXPECT_LT(waited, std::chrono::seconds(5));
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_TRUE(blocksSignals && sigismember(&own, SIGTERM) == 0);
    std::map<std::string, std::map<std::string, int>> batch;
    for (int i = 0; i < 1000; ++i) {
        batch[std::to_string(i)] = {};
    }
    agentIsSlow = true;
    for (int i = 0; i < 3; ++i) {
        m_logger->m_stat_log_queues.push(batch);
    }
    EXPECT_EQ(perform(*m_logger, "on 5"), 0);
    EXPECT_TRUE(eventually([] { return slowSends > 3; }));
    EXPECT_EQ(perform(*m_logger, "off 5"), 0);
    EXPECT_LT(destroy(), std::chrono::seconds(2));
    agentIsSlow = false;
    EXPECT_TRUE(eventually([&] { return countThreads() == before; }));
    EXPECT_TRUE(eventually([&] { return m_agent.recordCount() == 10 + slowSends; }));
}

/// What a process does that ends while its statistics thread is busy.
int endBusily(const std::string& how, int microseconds) {
    static CLogger* const neverDestroyed = new CLogger;
    neverDestroyed->init("app");
    for (int i = 0; i < 30000; ++i) {
        neverDestroyed->m_stat_log_queues.push({{"data", {{"n", 1}}}});
    }
    neverDestroyed->set_stat(true, 5, 0, 0);
    usleep(microseconds);
    return how == "return" ? 42 : (exit(42), 0);
}

TEST(ProcessEndTest, KeepsItsStatusWhileAStatisticsThreadIsBusy) {
    for (int i = 0; i < 200 / kScale; ++i) {
        const std::string wait = std::to_string(i * 25 * kScale);
        const char* const arguments[] = {"busy", i % 2 == 0 ? "return" : "exit", wait.c_str(),
                                         nullptr};
        pid_t child = 0;
        int status = 0;
        ASSERT_EQ(posix_spawn(&child, "/proc/self/exe", nullptr, nullptr,
                              const_cast<char**>(arguments), environ),
                  0);
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status << " after " << wait;
    }
}

}  // namespace
}  // namespace Quorvel

int main(int argc, char** argv) {
    if (argv[0] == std::string("busy")) {
        return Quorvel::endBusily(argv[1], atoi(argv[2]));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
