#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <sstream>

#include "fallback_records.h"
#include "qvapi_cpp.h"
#include "support.h"
#include "test_agent.h"

namespace {

thread_local bool isStatThread = false;
std::atomic<int> startError{0};
std::atomic<int> refusedAllocation{0};  ///< which one from now on fails in a statistics thread
std::atomic<bool> agentIsSlow{false};
std::atomic<size_t> slowSends{0};

void* allocate(size_t size) {
    const bool refused = isStatThread && refusedAllocation > 0 && --refusedAllocation == 0;
    void* const memory = refused ? nullptr : malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void* runStatThread(void* logger) {
    isStatThread = true;
    return StartStatThreads(logger);
}

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }

extern "C" int pthread_create(pthread_t* id, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    const bool ours = start == StartStatThreads;
    return ours && startError != 0 ? startError.load()
                                   : Quorvel::callReal<int>("pthread_create", id, attributes,
                                                            ours ? runStatThread : start, argument);
}

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    static auto* const next = reinterpret_cast<decltype(send)*>(dlsym(RTLD_NEXT, "send"));
    slowSends += agentIsSlow ? 1 + 0 * usleep(20000) : 0;
    return next(fd, data, length, flags);
}

namespace Quorvel {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int kScale = 10;
#else
const int kScale = 1;
#endif
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

std::set<std::string> threads() {
    std::set<std::string> paths;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        paths.insert(task.path());
    }
    return paths;
}

/// A line of the status of a process or thread.
std::string status(const std::string& path, const std::string& key) {
    std::ifstream file(path + "/status");
    std::string line;
    while (getline(file, line) && line.compare(0, key.size(), key) != 0) {
    }
    return line.substr(std::min(line.size(), key.size() + 2));
}

/// The texts of the records, from the `first` on, by application.
std::map<std::string, std::string> textsOf(const TestAgent& agent, int type, size_t first = 0) {
    std::map<std::string, std::string> texts;
    for (const Request& record : agent.records()) {
        if (first > 0) {
            --first;
            continue;
        }
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
        {60, 9, "1001 a 2 n=7,1001 a 2 n=3,1001 a 2 n=9", "a&n=3 "},
        {60, 9, "1001 a 3 n=7,1001 a 3 n=9,1001 a 3 n=3 m=-5", "a&m=-5&n=9 "},
        {60, 9, "1001 a 1 n=2147483647,1001 a 0 n=1", "a&n=-2147483648 "},
        {60, 9, "1001 a 0 n=-2147483648,1001 a 1 n=-1", "a&n=2147483647 "},
        {60, 9, "1001 a 1 n=10,1001 a 3 n=4,1001 a 2 n=4,1001 a 0 n=3", "a&n=7 "},
        {60, 9, "1001 a 4 n=1,1001 b -1 n=1,1001 c 1", "a b c "},
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
        {"", 0, 1, off},
        {"init app", 0, 0, off},
        {"1060 b 1 n=1", 0, 1, off},
        {"on 5", EAGAIN, EAGAIN, failed},
        {"", 0, 2, "write_baselog: data empty"},
        {"1000 a 1 n=1", EAGAIN, 0, "write_baselog: data empty"},
        {"1060 b 1 n=1", EPERM, EPERM, failedAgain},
        {"1000 a 1 n=1", EAGAIN, 0, failedAgain},
        {"off 6", EAGAIN, 0, failedAgain},
        {"1060 b 1 n=1", 0, 1, off},
        {"on 6", EINVAL, EINVAL, failed},
        {"init", 0, 1, "init: already init with appname:app"},
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

TEST_F(StatisticsTest, KeepsItsThreadWhenEveryRecordIsRejected) {
    CLogger module;
    ASSERT_EQ(module.init(7), 0);
    for (CLogger* const logger : {m_logger.get(), &module}) {
        const bool isModule = logger == &module;
        ASSERT_EQ(perform(*logger, isModule ? "on 5" : "on 111"), 0);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(perform(*logger, "1 a 0"), 0);
            EXPECT_EQ(perform(*logger, ""), 2);
            EXPECT_EQ(perform(*logger, "1 b 0"), 0);
            EXPECT_TRUE(eventually([&] {
                return logger->get_errmsg() == (isModule ? "write_baselog: wrong invoke"
                                                         : "write_baselog: wrong logtype 111");
            }));
        }
    }
}

TEST_F(StatisticsTest, LosesOnlyTheRecordThatRunsOutOfMemory) {
    std::set<std::string> outcomes;
    for (int nth = 1; nth < 30; ++nth) {
        const size_t first = m_agent.recordCount();
        CLogger logger;
        ASSERT_EQ(logger.init("app"), 0);
        logger.m_stat_log_queues.push({{"a", {{"n", 1}}}, {"b", {}}});
        logger.m_stat_log_queues.push({{"c", {}}});
        refusedAllocation = nth;
        ASSERT_EQ(perform(logger, "on 5"), 0);
        EXPECT_TRUE(eventually(
            [&] { return m_agent.recordCount() == first + (refusedAllocation > 0 ? 3 : 2); }));
        refusedAllocation = 0;
        outcomes.insert(textsOf(m_agent, 5, first)["app"]);
    }
    EXPECT_EQ(outcomes, (std::set<std::string>{"b c ", "a&n=1 c ", "a&n=1 b ", "a&n=1 b c "}));
}

TEST_F(StatisticsTest, BlocksAllSignalsInItsThreadOnly) {
    const std::string own = status("/proc/thread-self", "SigBlk");
    const std::set<std::string> before = threads();
    ASSERT_EQ(perform(*m_logger, "on 5"), 0);
    EXPECT_EQ(status("/proc/thread-self", "SigBlk"), own);
    EXPECT_EQ(threads().size(), before.size() + 1);
    for (const std::string& thread : threads()) {
        // All but SIGKILL, SIGSTOP and the thread library's own two.
        EXPECT_TRUE(before.count(thread) != 0 ||
                    eventually([&] { return status(thread, "SigBlk") == "fffffffe7ffbfeff"; }));
    }
}

TEST_F(StatisticsTest, NamesTheMostRecentlyStartedThreadThatStillRuns) {
    const size_t before = threads().size();
    const auto start = [](CLogger& logger) {
        EXPECT_EQ(perform(logger, "on 5"), startError);
        return statPid();
    };
    auto b = std::make_unique<CLogger>();
    ASSERT_EQ(b->init("b"), 0);
    const pthread_t first = start(*m_logger), second = start(*b), third = start(*b);
    EXPECT_EQ((std::set<pthread_t>{first, second, third, kNoThread}.size()), 4U);
    startError = EAGAIN;
    EXPECT_EQ(start(*m_logger), third);
    startError = 0;
    b = std::make_unique<CLogger>();
    EXPECT_EQ(statPid(), first);
    EXPECT_EQ(pthread_kill(first, 0), 0);
    ASSERT_EQ(b->init("b"), 0);
    const pthread_t fourth = start(*b);
    m_logger.reset();
    EXPECT_EQ(statPid(), fourth);
    EXPECT_EQ(perform(*b, "1 a 0"), 0);
    EXPECT_EQ(b->get_errmsg(), "");
    b.reset();
    EXPECT_EQ(statPid(), kNoThread);
    EXPECT_TRUE(eventually([&] { return threads().size() == before; }));
}

/// Counts and sums by text.
using Sums = std::map<std::string, std::pair<int64_t, int64_t>>;

void add(Sums& sums, const std::vector<Request>& records) {
    for (const Request& record : records) {
        int count = 0, value = 0;
        EXPECT_EQ(sscanf(record.body.c_str(), "%*[^&]&n=%d&sum=%d", &count, &value), 2);
        auto& [counts, values] = sums[record.body.substr(0, record.body.find('&'))];
        counts += count, values += value;
    }
}

TEST_F(StatisticsTest, LosesNoMergeOfFourThreads) {
    const int kMerges = 1000000 / kScale;
    std::filesystem::create_directories("/data/qvagent");
    ASSERT_EQ(perform(*m_logger, "on 5", 1, INT32_MAX), 0);
    std::atomic<int> next{0};
    const auto work = [&] {
        for (int n = next++; n < kMerges; n = next++) {
            std::map<std::string, int> values = {{"n", 1}, {"sum", n % 777 - 5}};
            m_logger->write_statlogs(std::to_string(n % 1000), values, 1, kTime + n / 1000);
        }
    };
    std::vector<std::thread> mergers;
    std::generate_n(std::back_inserter(mergers), 4, [&] { return std::thread(work); });
    std::for_each(mergers.begin(), mergers.end(), [](std::thread& merger) { merger.join(); });
    Sums handedOver, written;
    for (int n = 0; n < kMerges; ++n) {
        auto& [counts, values] = handedOver[std::to_string(n % 1000)];
        counts += 1, values += n % 777 - 5;
    }
    EXPECT_EQ(perform(*m_logger, "1 last 0"), 0);
    EXPECT_TRUE(eventually([&] {
        pthread_rwlock_rdlock(&m_logger->m_queue_lock);
        const bool isEmpty = m_logger->m_stat_log_queues.empty();
        pthread_rwlock_unlock(&m_logger->m_queue_lock);
        return isEmpty;
    }));
    EXPECT_TRUE(eventually([&] {
        written.clear();
        add(written, m_agent.records());
        add(written, fallbackRecords());
        return written == handedOver;
    }));
    EXPECT_EQ(written, handedOver);
}

TEST_F(StatisticsTest, LeavesNoThreadAndNoMemoryOfShortLivedLoggers) {
    m_agent.stop();
    const int kLoggers = 3000 / kScale;
    ASSERT_EQ(perform(*m_logger, "on 5"), 0);
    const pthread_t own = statPid();
    const size_t before = threads().size();
    const auto start = std::chrono::steady_clock::now();
    long memory = 0;
    for (int i = 0; i < kLoggers; ++i) {
        CLogger logger;
        ASSERT_EQ(logger.init("short"), 0);
        EXPECT_EQ(perform(logger, "on 5"), 0);
        EXPECT_EQ(perform(logger, "1 a 0"), 0);
        EXPECT_EQ(perform(*m_logger, "1 a 0"), 0);
        memory = i == kLoggers / 10 ? std::stol(status("/proc/self", "VmRSS")) : memory;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, kLoggers * std::chrono::milliseconds(100));
    EXPECT_TRUE(eventually([&] { return threads().size() == before; }));
    EXPECT_EQ(statPid(), own);
    EXPECT_EQ(pthread_kill(own, 0), 0);
    EXPECT_LT(std::stol(status("/proc/self", "VmRSS")), kScale == 1 ? memory + 4096 : LONG_MAX);
}

TEST_F(StatisticsTest, EndsBusyThreadsAfterTheRecordInHand) {
    for (int i = 0; i < 3000; ++i) {
        m_logger->m_stat_log_queues.push({{"a", {}}, {"b", {}}});
    }
    const size_t before = threads().size();
    agentIsSlow = true;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(perform(*m_logger, "on 5"), 0);
    }
    EXPECT_TRUE(eventually([] { return slowSends > 3; }));
    EXPECT_EQ(perform(*m_logger, "off 5"), 0);
    const auto start = std::chrono::steady_clock::now();
    m_logger.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    agentIsSlow = false;
    EXPECT_TRUE(eventually([&] { return threads().size() == before; }));
    EXPECT_TRUE(eventually([&] { return m_agent.recordCount() == slowSends; }));
}

CLogger* neverDestroyed;

/// What a process does that ends while its statistics thread is busy.
int endBusily(const std::string& how, int microseconds) {
    neverDestroyed = new CLogger;
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
