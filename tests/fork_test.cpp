#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <vector>

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
NEXT(pthread_create);

std::atomic<bool> connected[4096];  ///< which descriptors are the library's sockets
std::atomic<bool> strayed{false};   ///< something was sent over another one
std::string awaited;                ///< the text whose writing sets `seen`
std::atomic<bool> seen{false};
std::atomic<bool> torn{false};  ///< a merge was written in part
std::string interruptedCall;    ///< in which a signal comes, once

void interrupt(const char* call) {
    if (interruptedCall == call) {
        interruptedCall.clear();
        raise(SIGUSR1);
    }
}

/// A merge gives the values "a" to "z" of a text the same change.
void look(const void* data, size_t length) {
    const std::string text(static_cast<const char*>(data), awaited.empty() ? 0 : length);
    seen = seen || (!awaited.empty() && text.find(awaited) != std::string::npos);
    const size_t first = text.find("&a="), last = text.find("&z=");
    torn = torn || (last < length && atoi(&text[first + 3]) != atoi(&text[last + 3]));
}

}  // namespace

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

/// A socket that the library connected and did not close; 4096 when there is none.
int connectedSocket() {
    return static_cast<int>(std::find(connected, std::end(connected), true) - connected);
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
            const auto failed =
                std::find_if(steps.begin(), steps.end(), [](const auto& step) { return !step(); });
            _exit(failed == steps.end() ? 0 : 1 + static_cast<int>(failed - steps.begin()));
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

class ForkThreadTest : public ForkTest {
    void SetUp() override {
        if (kIsSanitized) {
            GTEST_SKIP() << "the sanitizers fail in a forked child that starts a thread";
        }
    }
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
    for (const std::string call : {"connect", "send", "write", "pthread_create"}) {
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
    EXPECT_TRUE(eventually([&] { return agent.recordCount() == 6; }));
    EXPECT_EQ(fallbackRecords().size(), 2U);
}

TEST_F(ForkThreadTest, LeavesLoggersOnTheStacksOfLostThreadsOutOfAChildsOwnForks) {
    std::atomic<bool> done{false}, ready{false}, overwritten{false};
    std::thread owner([&] {
        CLogger logger;
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
    runInChild({
        [&] { return std::thread(overwriteStack).detach(), true; },
        [&] { return eventually([&] { return overwritten.load(); }); },
        [&] { return runInChild({}), awaitChildren(0), !HasFailure(); },
    });
    awaitChildren(0);
    done = true;
    owner.join();
}

/// What the application's own threads write.
std::string bodyOf(int thread, int number) {
    return std::to_string(thread) + ":" + std::to_string(number) + std::string(number % 300, '.');
}

TEST_F(ForkThreadTest, LeavesEveryChildUsableLoggersWhileOtherThreadsUseThem) {
    const int kForks = 1000, kThreads = 4, kAlive = 50;
    TestAgent agent(kUnix);
    std::unique_ptr<CLogger> loggers[] = {std::make_unique<CLogger>(), std::make_unique<CLogger>()};
    for (const auto& logger : loggers) {
        ASSERT_EQ(logger->init("app"), 0);
    }
    CLogger& merged = *loggers[0];
    ASSERT_EQ(merged.set_stat(true, 1, 1, 99), 0);
    std::map<std::string, int> values, expected, written;
    for (char name = 'a'; name <= 'z'; ++name) {
        values[std::string(1, name)] = 1;
    }
    std::atomic<bool> done{false};
    std::atomic<int> numbers[kThreads] = {};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (; !done; ++numbers[thread], usleep(200)) {
                CLogger own;  // one of the threads writes each record through a logger of its own
                own.init("app");
                (thread == 0 ? own : *loggers[thread % 2])
                    .write_baselog(0, bodyOf(thread, numbers[thread]), false, 1);
            }
        });
    }
    threads.emplace_back([&] {
        for (unsigned int n = 0; !done; ++n) {
            merged.write_statlogs("merged " + std::to_string(n % 50), values, 1, n / 2000);
            n % 500 == 0 ? usleep(5000) : 0;  // the children inherit what is queued
        }
    });
    for (int i = 0; i < kForks; ++i) {
        const std::string name = "child " + std::to_string(i);
        expected[name] = 1;
        runInChild({
            [&] { return connectedSocket() == 4096; },
            [&] { return awaited = name + " closed", true; },
            [&] { return loggers[i % 2]->write_baselog(0, name, false, 1) <= 8; },
            [&] { return merged.write_statlogs(awaited, values, 0, 0) == 0; },
            [&] { return merged.write_statlogs("open", values, 0, 1) == 0; },
            [&] { return eventually([] { return seen.load(); }); },
            [&] { return loggers[0].reset(), loggers[1].reset(), !strayed && !torn; },
        });
        awaitChildren(kAlive - 1);
    }
    awaitChildren(0);
    done = true;
    std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
    loggers[0].reset();
    loggers[1].reset();
    EXPECT_TRUE(eventually([&] { return agent.openConnections() == 0; }));
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_GT(numbers[thread], 0);
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
}

}  // namespace
}  // namespace Quorvel
