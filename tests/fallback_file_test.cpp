#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "qvapi_cpp.h"
#include "support.h"

namespace {

off_t grownTo = 0;   // by what others append just before the library writes, unless 0
int writtenTo = -1;  // the handle of the library's last write
bool closesOnExec = false;

}  // namespace

extern "C" ssize_t write(int fd, const void* data, size_t length) {
    writtenTo = fd;
    closesOnExec = (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    EXPECT_EQ(grownTo != 0 ? ftruncate(fd, grownTo) : 0, 0);
    return syscall(SYS_write, fd, data, length);
}

namespace Quorvel {
namespace {

const char* const kDirectory = "/data/qvagent";
const off_t kLimit = 1000000000;
const std::string kRecord("\x1A\0\0\0\3\x85\0\x0A\0\2\0\1\x53\x72\x4E\0\0\0\0\0\0\3apphello", 30);

// Without an agent on the Unix socket. A call that blocks ends the program; one that loses a
// descriptor fails its test.
class FallbackFileTest : public testing::Test {
 protected:
    FallbackFileTest() {
        std::filesystem::remove_all(kFallbackFile);
        std::filesystem::create_directories(kDirectory);
        alarm(60);
    }
    void TearDown() override {
        alarm(0);
        EXPECT_EQ(openFiles(), m_openFiles);
    }

    static int write(CLogger& logger) {
        return keepingErrno([&] {
            logger.init("app");
            return logger.write_baselog("hello", 5, 5, 0, 1400000000);
        });
    }
    static std::string read() {
        std::ifstream file(kFallbackFile, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static void makeFile(off_t size) {
        std::ofstream{kFallbackFile};
        std::filesystem::resize_file(kFallbackFile, size);
    }

 private:
    const ptrdiff_t m_openFiles = openFiles();
};

TEST_F(FallbackFileTest, AppendsLengthAndRequestForEveryoneToReadAndWrite) {
    CLogger logger;
    const mode_t mask = umask(077);
    for (const std::string& expected : {kRecord, kRecord + kRecord}) {
        EXPECT_EQ(write(logger), 7);
        EXPECT_EQ(read(), expected);
        EXPECT_EQ(std::filesystem::status(kFallbackFile).permissions(),
                  std::filesystem::perms(0666));
        EXPECT_EQ(chmod(kFallbackFile, 0600), 0);
        EXPECT_TRUE(closesOnExec);
    }
    umask(mask);
}

TEST_F(FallbackFileTest, TakesTheRecordOfABrokenStreamWholeAndNoDatagram) {
    const std::tuple<Transport, int, std::string, std::string> rows[] = {
        {kUnix, 8, "sendWithoutRecv buff length 26, write res 0", kRecord},
        {kUdp, 17, "send udp message failed error[111] errmsg[Connection refused]", ""}};
    for (const auto& [transport, code, text, file] : rows) {
        CLogger logger(transport);
        auto agent = std::make_unique<Agent>(transport);
        EXPECT_EQ(write(logger), 0);
        EXPECT_EQ(agent->receive(26), kRecord.substr(4));
        agent.reset();
        EXPECT_EQ(transport == kUdp ? write(logger) : 0, 0);
        EXPECT_EQ(write(logger), code);
        EXPECT_EQ(logger.get_errmsg(), text);
        EXPECT_EQ(read(), file);
        std::filesystem::remove(kFallbackFile);
    }
}

TEST_F(FallbackFileTest, DropsRecordsOnceItIsOverItsLimit) {
    const std::tuple<off_t, int> rows[] = {{0, 7},          {kLimit, 7},     {kLimit + 1, 20},
                                           {1LL << 31, 20}, {1LL << 32, 20}, {5LL << 32, 20}};
    for (const auto& [before, code] : rows) {
        SCOPED_TRACE(before);
        makeFile(before);
        CLogger logger;
        EXPECT_EQ(write(logger), code);
        EXPECT_EQ(std::filesystem::file_size(kFallbackFile), before + (code == 7 ? 30 : 0));
        EXPECT_EQ(logger.get_errmsg().find("connect failed:["), 0U);
    }
}

TEST_F(FallbackFileTest, TakesNothingAndNeverWaitsWhereNoRegularFileCanBeOpened) {
    // Each makes what stands in the file's place and returns a descriptor that must get no input.
    const std::function<int()> rows[] = {
        [] { return std::filesystem::remove_all(kDirectory) - 1; },
        [] { return mkdir(kFallbackFile, 0777); }, [] { return mkfifo(kFallbackFile, 0666); },
        [] { return mkfifo(kFallbackFile, 0666) + open(kFallbackFile, O_RDONLY | O_NONBLOCK); },
        [] {
            const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
            return unlockpt(terminal) + symlink(ptsname(terminal), kFallbackFile) + terminal;
        }};
    for (const auto& make : rows) {
        std::filesystem::remove_all(kFallbackFile);
        std::filesystem::create_directories(kDirectory);
        const int watched = make();
        EXPECT_GE(watched, 0);
        CLogger logger;
        EXPECT_EQ(write(logger), 7);
        EXPECT_EQ(write(logger), 7);
        pollfd entry = {watched > 2 ? watched : -1, POLLIN, 0};
        poll(&entry, 1, 0);
        EXPECT_EQ(entry.revents & POLLIN, 0);
        watched > 2 ? close(watched) : 0;
    }
}

TEST_F(FallbackFileTest, KeepsToTheFileSizeLimitWithoutASignal) {
    // The file's size, the limit, what the file grows to before the write, its size afterwards.
    const std::tuple<off_t, rlim_t, off_t, size_t> rows[] = {
        {0, 30, 0, 30}, {0, 29, 0, 0}, {10, 40, 0, 40}, {10, 39, 0, 10}, {0, 30, 30, 30}};
    sigset_t exceeded;
    sigemptyset(&exceeded);
    sigaddset(&exceeded, SIGXFSZ);
    for (const bool pending : {false, true}) {
        pthread_sigmask(pending ? SIG_BLOCK : SIG_UNBLOCK, &exceeded, nullptr);
        for (const auto& [before, current, grown, after] : rows) {
            SCOPED_TRACE(testing::Message() << before << " of " << current << ", " << pending);
            makeFile(before);
            EXPECT_EQ(pending ? raise(SIGXFSZ) : 0, 0);
            const rlimit limit = {current, RLIM_INFINITY};
            const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
            CLogger logger;
            setrlimit(RLIMIT_FSIZE, &limit);
            grownTo = grown;
            EXPECT_EQ(write(logger), 7);
            grownTo = 0;
            setrlimit(RLIMIT_FSIZE, &unlimited);
            EXPECT_EQ(std::filesystem::file_size(kFallbackFile), after);
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            EXPECT_EQ(sigismember(&mask, SIGXFSZ), pending ? 1 : 0);
            const timespec none = {0, 0};
            EXPECT_EQ(sigtimedwait(&exceeded, nullptr, &none), pending ? SIGXFSZ : -1);
        }
    }
    pthread_sigmask(SIG_UNBLOCK, &exceeded, nullptr);
}

TEST_F(FallbackFileTest, StaysOffTheStandardStreamsAndOutOfOtherPrograms) {
    CLogger logger;
    EXPECT_EQ(withoutStandardStreams([&] { return write(logger); }), 7);
    EXPECT_EQ(read(), kRecord);
    EXPECT_GT(writtenTo, 2);
    EXPECT_TRUE(closesOnExec);
}

}  // namespace
}  // namespace Quorvel
