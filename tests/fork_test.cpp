#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "fallback_records.h"
#include "qvapi_cpp.h"
#include "support.h"
#include "test_agent.h"

namespace {

// Looked up early: a child forked while another thread is in dlsym(3) must not call it.
#define NEXT(name) \
    const auto next_##name = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))
NEXT(send);
NEXT(write);
NEXT(connect);
NEXT(close);
NEXT(socket);
NEXT(pthread_create);

std::atomic<bool> connected[4096];  ///< which descriptors are the library's sockets
std::atomic<bool> strayed{false};   ///< something was sent over another one
std::string awaited;                ///< the text whose writing sets `seen`
std::atomic<bool> seen{false};
std::string interruptedCall;  ///< in which a signal comes, once

void interrupt(const char* call) {
    if (interruptedCall == call) {
        interruptedCall.clear();
        raise(SIGUSR1);
    }
}

void look(const void* data, size_t length) {
    if (!awaited.empty() && memmem(data, length, awaited.data(), awaited.size()) != nullptr) {
        seen = true;
    }
}

}  // namespace

extern "C" int socket(int family, int type, int protocol) noexcept {
    interrupt("socket");
    return next_socket(family, type, protocol);
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
    interrupt("connect");
    connected[fd] = true;
    return next_connect(fd, address, length);
}

extern "C" int close(int fd) {
    connected[std::max(fd, 0)] = false;
    return next_close(fd);
}

extern "C" ssize_t send(int fd, const void* data, size_t length, int flags) {
    interrupt("send");
    look(data, length);
    strayed = strayed || !connected[fd];
    return next_send(fd, data, length, flags);
}

extern "C" ssize_t write(int fd, const void* data, size_t length) {
    interrupt("write");
    look(data, length);
    return next_write(fd, data, length);
}

extern "C" int pthread_create(pthread_t* id, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    interrupt("pthread_create");
    return next_pthread_create(id, attributes, start, argument);
}

namespace Quorvel {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kIsSanitized = true;
#else
const bool kIsSanitized = false;
#endif

/// A socket that the library connected and did not close; -1 when there is none.
int connectedSocket() {
    const auto entry = std::find(std::begin(connected), std::end(connected), true);
    return entry != std::end(connected) ? static_cast<int>(entry - connected) : -1;
}

class ForkTest : public testing::Test {
 protected:
    ForkTest() {
        std::filesystem::create_directories("/data/qvagent");
        std::filesystem::remove(kFallbackFile);
    }

    /// Forks a child that ends with the number of the step that failed, or with 0.
    void runInChild(const std::vector<std::function<bool()>>& steps) {
        const pid_t child = fork();
        if (child == 0) {
            int number = 1;
            for (auto step = steps.begin(); step != steps.end() && (*step)(); ++step) {
                ++number;
            }
            _exit(number > static_cast<int>(steps.size()) ? 0 : number);
        }
        m_children[child] = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    }

    /// Waits, a minute for each child, until at most `count` are left.
    void awaitChildren(size_t count) {
        while (m_children.size() > count) {
            usleep(100);
            for (auto child = m_children.begin(); child != m_children.end();) {
                const bool hangs = std::chrono::steady_clock::now() > child->second;
                int status = hangs ? kill(child->first, SIGKILL) : 0;
                const bool ended = waitpid(child->first, &status, hangs ? 0 : WNOHANG) != 0;
                EXPECT_EQ(status, 0) << "step " << WEXITSTATUS(status);
                child = ended ? m_children.erase(child) : std::next(child);
            }
        }
    }

 private:
    std::map<pid_t, std::chrono::steady_clock::time_point> m_children;
};

TEST_F(ForkTest, GivesTheChildASocketOfItsOwnAtOnce) {
    now = 1000;
    for (const int8_t transport : {kUnix, kTcp, kUdp}) {
        for (const bool isLock : {false, true}) {
            SCOPED_TRACE(testing::Message() << int{transport} << isLock);
            TestAgent agent(transport);
            auto logger = std::make_unique<CLogger>(transport, isLock);
            ASSERT_EQ(logger->init("app"), 0);
            EXPECT_EQ(logger->write_baselog(1, "before", false, 1), 0);
            const int fd = connectedSocket();
            const auto isOpen = [=] { return fcntl(fd, F_GETFD) != -1; };
            runInChild({
                [&] { return fd > 2 && !isOpen(); },
                [&] { return dup2(STDERR_FILENO, fd) == fd; },
                [&] { return logger->write_baselog(1, "child", false, 1) == 0; },
                [&] { return !strayed && !connected[fd]; },
                [&] { return logger.reset(), isOpen(); },
            });
            awaitChildren(0);
            EXPECT_EQ(logger->write_baselog(1, "after", false, 1), 0);
            EXPECT_TRUE(eventually([&] { return agent.recordCount() == 3; }));
            EXPECT_EQ(agent.conversations().size(), transport == kUdp ? 1U : 2U);
            EXPECT_EQ(agent.conversations()[0].records.back().body, "after");
        }
    }
    now = 0;
}

int handlersChild = 0;

TEST_F(ForkTest, WaitsForNothingInAHandlerThatInterruptedACall) {
    signal(SIGUSR1, [](int) {
        const pid_t child = fork();
        child == 0 ? _exit(42) : static_cast<void>(waitpid(child, &handlersChild, 0));
    });
    TestAgent agent(kUnix);
    for (const std::string call : {"socket", "connect", "send", "write", "pthread_create"}) {
        SCOPED_TRACE(call);
        const int code = call == "write" ? 7 : 0;
        CLogger logger(code == 7 ? kTcp : kUnix);
        ASSERT_EQ(logger.init("app"), 0);
        interruptedCall = call;
        alarm(60);
        EXPECT_EQ(logger.write_baselog(1, "interrupted", false, 1), code);
        EXPECT_EQ(logger.set_stat(true, 1, 0, 0), 0);
        EXPECT_EQ(logger.write_baselog(1, "next", false, 1), code);
        alarm(0);
        EXPECT_EQ(interruptedCall, "");
        EXPECT_EQ(WEXITSTATUS(handlersChild), 42);
        handlersChild = 0;
    }
    EXPECT_TRUE(eventually([&] { return agent.recordCount() == 8; }));
    EXPECT_EQ(fallbackRecords().size(), 2U);
}

TEST_F(ForkTest, StartsAThreadForTheFirstLoggerThatClosesABatchInTheChild) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizers fail in a forked child that starts a thread";
    }
    const auto* const statPid = static_cast<pthread_t*>(dlsym(RTLD_DEFAULT, "stat_pid"));
    auto a = std::make_unique<CLogger>(), b = std::make_unique<CLogger>();
    std::map<std::string, int> values;
    for (CLogger* logger : {a.get(), b.get()}) {
        ASSERT_EQ(logger->init("app"), 0);
        ASSERT_EQ(logger->set_stat(true, 1, 0, 0), 0);
    }
    const auto closes = [&](CLogger& logger, const char* text) {
        return logger.write_statlogs("a", values, 0, 1) == 0 && logger.get_errmsg() == text;
    };
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const pthread_t before = *statPid;
    runInChild({
        [&] { return *statPid == ~pthread_t{0}; },
        [&] { return closes(*a, "the statistical thread did not exists or already quit"); },
        [&] { return closes(*b, "") && threads() == 2; },
        [&] { return b.reset(), threads() == 2; },
        [&] { return a.reset(), eventually([&] { return threads() == 1; }); },
        [&] { return *statPid == ~pthread_t{0}; },
    });
    awaitChildren(0);
    EXPECT_EQ(*statPid, before);
}

/// What the application's own threads write.
std::string bodyOf(int thread, int number) {
    return std::to_string(thread) + ":" + std::to_string(number) + std::string(number % 300, '.');
}

TEST_F(ForkTest, LeavesEveryChildUsableLoggersWhileOtherThreadsUseThem) {
    if (kIsSanitized) {
        GTEST_SKIP() << "the sanitizers fail in a forked child that starts a thread";
    }
    const int kForks = 1000, kThreads = 4, kAlive = 50;
    TestAgent agent(kUnix);
    std::unique_ptr<CLogger> loggers[] = {std::make_unique<CLogger>(), std::make_unique<CLogger>()};
    for (const auto& logger : loggers) {
        ASSERT_EQ(logger->init("app"), 0);
    }
    CLogger& merged = *loggers[0];
    ASSERT_EQ(merged.set_stat(true, 1, 0, 0), 0);
    std::map<std::string, int> values = {{"n", 1}}, expected, written;
    std::atomic<bool> done{false};
    std::atomic<int> numbers[kThreads] = {};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (; !done; ++numbers[thread], usleep(200)) {
                CLogger own;  // one of the threads writes each record through a logger of its own
                thread == 0 ? own.init("app") : 0;
                (thread == 0 ? own : *loggers[thread % 2])
                    .write_baselog(0, bodyOf(thread, numbers[thread]), false, 1);
            }
        });
    }
    threads.emplace_back([&] {
        for (; !done; usleep(200)) {
            merged.write_statlogs("merged", values, QV_STAT_TYPE_SUM, 1);
        }
    });
    for (int i = 0; i < kForks; ++i) {
        const std::string name = "child " + std::to_string(i);
        expected[name] = 1;
        runInChild({
            [&] { return connectedSocket() == -1; },
            [&] { return awaited = name + " closed", true; },
            [&] { return loggers[i % 2]->write_baselog(0, name, false, 1) <= 8; },
            [&] { return merged.write_statlogs(awaited, values, 0, 1) == 0; },
            [&] { return merged.write_statlogs("open", values, 0, 1) == 0; },
            [&] { return eventually([] { return seen.load(); }); },
            [&] { return loggers[0].reset(), loggers[1].reset(), !strayed; },
        });
        awaitChildren(kAlive - 1);
    }
    awaitChildren(0);
    done = true;
    std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    loggers[0].reset();
    loggers[1].reset();
    EXPECT_TRUE(eventually([&] { return agent.openConnections() == 0; }));
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_GT(numbers[thread], kForks);
        for (int number = 0; number < numbers[thread]; ++number) {
            expected[bodyOf(thread, number)] = 1;
        }
    }
    for (const auto& records : {agent.records(), fallbackRecords()}) {
        for (const Request& record : records) {
            record.logType == 0 ? ++written[record.body] : 0;
        }
    }
    EXPECT_TRUE(written == expected) << written.size() << " of " << expected.size();
    for (const Conversation& heard : agent.conversations()) {
        EXPECT_EQ(heard.malformed(), "");
    }
}

}  // namespace
}  // namespace Quorvel
