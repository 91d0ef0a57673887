#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "qvapi_cpp.h"
#include "support.h"

// What the file grows to by others just before the library writes, unless 0.
static off_t grownTo = 0;

extern "C" ssize_t write(int fd, const void* data, size_t length) {
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(grownTo != 0 ? ftruncate(fd, grownTo) : 0, 0);
    return syscall(SYS_write, fd, data, length);
}

namespace Quorvel {
namespace {

const off_t kLimit = 1000000000;
const std::string kRecord("\x1A\0\0\0\3\x85\0\x0A\0\2\0\1\x53\x72\x4E\0\0\0\0\0\0\3apphello", 30);

// Without an agent on the Unix socket. A call that blocks ends the program.
class FallbackFileTest : public testing::Test {
 protected:
    FallbackFileTest() {
        std::filesystem::remove(kFallbackFile);
        std::filesystem::create_directories("/data/qvagent");
        alarm(60);
    }
    ~FallbackFileTest() override {
        EXPECT_EQ(openFiles(), m_openFiles);
        alarm(0);
    }

    static int write() {
        return keepingErrno([] {
            CLogger logger;
            logger.init("app");
            return logger.write_baselog("hello", 5, 5, 0, 1400000000);
        });
    }
    static void makeFile(off_t size) {
        std::ofstream{kFallbackFile};
        std::filesystem::resize_file(kFallbackFile, size);
    }

    static void limitFileSize(rlim_t size) {
        const rlimit limit = {size, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
    }

 private:
    const ptrdiff_t m_openFiles = openFiles();
};

TEST_F(FallbackFileTest, TakesLengthAndRequestOffTheStandardStreamsForEveryone) {
    const mode_t mask = umask(077);
    for (const std::string& expected : {kRecord, kRecord + kRecord}) {
        close(0);
        EXPECT_EQ(write(), 7);
        EXPECT_EQ(open("/dev/null", O_RDONLY), 0) << "the first descriptor is not free any more";
        std::ifstream file(kFallbackFile);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), expected);
        EXPECT_EQ(std::filesystem::status(kFallbackFile).permissions(),
                  std::filesystem::perms(0666));
        EXPECT_EQ(chmod(kFallbackFile, 0600), 0);
    }
    umask(mask);
}

TEST_F(FallbackFileTest, DropsRecordsOnceItIsOverItsLimit) {
    for (const off_t size : {kLimit, kLimit + 1, off_t{1} << 32}) {
        makeFile(size);
        EXPECT_EQ(write(), size == kLimit ? 7 : 20);
        EXPECT_EQ(std::filesystem::file_size(kFallbackFile), size + (size == kLimit ? 30 : 0));
    }
}

TEST_F(FallbackFileTest, TakesNothingAndNeverWaitsWhereNoRegularFileStands) {
    EXPECT_EQ(mkfifo(kFallbackFile, 0666), 0);
    EXPECT_EQ(write(), 7);
    const int reader = open(kFallbackFile, O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(write(), 7);
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    unlink(kFallbackFile);
    EXPECT_EQ(unlockpt(terminal) + symlink(ptsname(terminal), kFallbackFile), 0);
    EXPECT_EQ(write(), 7);
    for (const int fd : {reader, terminal}) {
        pollfd entry = {fd, POLLIN, 0};
        poll(&entry, 1, 0);
        EXPECT_EQ(entry.revents & POLLIN, 0);
        close(fd);
    }
}

TEST_F(FallbackFileTest, KeepsToTheFileSizeLimitWithoutASignal) {
    // The limit, what a file of 10 bytes grows to before the write, its size afterwards.
    const std::tuple<rlim_t, off_t, size_t> rows[] = {{40, 0, 40}, {39, 0, 10}, {40, 40, 40}};
    const timespec none = {};
    sigset_t exceeded;
    sigemptyset(&exceeded);
    sigaddset(&exceeded, SIGXFSZ);
    for (const bool pending : {false, true}) {
        pthread_sigmask(pending ? SIG_BLOCK : SIG_UNBLOCK, &exceeded, nullptr);
        for (const auto& [size, grown, after] : rows) {
            makeFile(10);
            EXPECT_EQ(pending ? raise(SIGXFSZ) : 0, 0);
            limitFileSize(size);
            grownTo = grown;
            EXPECT_EQ(write(), 7);
            grownTo = 0;
            limitFileSize(RLIM_INFINITY);
            EXPECT_EQ(std::filesystem::file_size(kFallbackFile), after);
            EXPECT_EQ(sigtimedwait(&exceeded, nullptr, &none), pending ? SIGXFSZ : -1);
        }
    }
    pthread_sigmask(SIG_UNBLOCK, &exceeded, nullptr);
}

}  // namespace
}  // namespace Quorvel
