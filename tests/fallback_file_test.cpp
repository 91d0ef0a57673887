#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support.h"

namespace {

QUORVEL_REAL(ftruncate);
QUORVEL_REAL(write);

/// Stands in for the library's next write, once.
std::function<ssize_t(int fd, const char* data, size_t length)> nextWrite;

std::function<void()> beforeCut = [] {};
std::atomic<int> arraysAllocated{0};

}  // namespace

extern "C" ssize_t write(int fd, const void* data, size_t length) {
    EXPECT_GT(fd, 2);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    const auto standIn = std::exchange(nextWrite, nullptr);
    return standIn ? standIn(fd, static_cast<const char*>(data), length)
                   : real_write(fd, data, length);
}

extern "C" int ftruncate(int fd, off_t length) noexcept {
    beforeCut();
    return real_ftruncate(fd, length);
}

void* operator new[](size_t size) {
    ++arraysAllocated;
    return ::operator new(size);
}
void operator delete[](void* area) noexcept { ::operator delete(area); }
void operator delete[](void* area, size_t /*size*/) noexcept { ::operator delete(area); }

namespace Quorvel {
namespace {

const off_t kLimit = 1000000000;
const int kTurnedOver = 7;
const int kFull = 20;
const std::string kRecord("\x1A\0\0\0\3\x85\0\x0A\0\2\0\1\x53\x72\x4E\0\0\0\0\0\0\3apphello", 30);

void makeFile(off_t size) {
    const std::ofstream file(kFallbackFile);
    std::filesystem::resize_file(kFallbackFile, size);
}

/// Appends as another process would, on a descriptor of its own.
void appendAsAnother(const std::string& bytes) {
    const int fd = open(kFallbackFile, O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(real_write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

/// Among them root's, for this thread, to open files in spite of their permissions.
void giveUpCapabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    EXPECT_EQ(syscall(SYS_capset, &header, none), 0);
}

/// Without an agent on the Unix socket.
class FallbackFileTest : public testing::Test {
 protected:
    FallbackFileTest() {
        makeFallbackDirectory();
        EXPECT_EQ(m_logger->init("app"), 0);
    }
    ~FallbackFileTest() override {
        m_logger.reset();
        EXPECT_EQ(openFiles(), m_openFiles);
    }

    /// Writes a record that no agent takes.
    int write() {
        return keepingErrno([&] { return m_logger->write_baselog("hello", 5, 5, 0, 1400000000); });
    }

 private:
    const ptrdiff_t m_openFiles = openFiles();
    std::unique_ptr<CLogger> m_logger = std::make_unique<CLogger>();
};

TEST_F(FallbackFileTest, IsOpenToEveryone) {
    const mode_t mask = umask(077);
    write();
    umask(mask);
    EXPECT_EQ(std::filesystem::status(kFallbackFile).permissions(), std::filesystem::perms(0666));
}

TEST_F(FallbackFileTest, LeavesStandardDescriptorsAlone) {
    close(STDIN_FILENO);
    write();
    EXPECT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO);
    EXPECT_EQ(contents(kFallbackFile), kRecord);
}

TEST_F(FallbackFileTest, TakesNoRecordOverItsLimit) {
    makeFile(kLimit);
    EXPECT_EQ(write(), kTurnedOver);
    EXPECT_EQ(std::filesystem::file_size(kFallbackFile), kLimit + kRecord.size());
    for (const off_t size : {kLimit + 1, off_t{1} << 32}) {
        makeFile(size);
        EXPECT_EQ(write(), kFull);
        EXPECT_EQ(std::filesystem::file_size(kFallbackFile), size);
    }
}

TEST_F(FallbackFileTest, CountsAsEmptyWhereItMayOnlyBeAppendedTo) {
    makeFile(kLimit + 1);
    chmod(kFallbackFile, 0222);
    std::thread([this] {
        giveUpCapabilities();
        EXPECT_EQ(open(kFallbackFile, O_RDONLY | O_CLOEXEC), -1);
        EXPECT_EQ(write(), kTurnedOver);
    }).join();
    EXPECT_EQ(std::filesystem::file_size(kFallbackFile), kLimit + 1 + kRecord.size());
}

TEST_F(FallbackFileTest, NeedsASecondBufferOnlyForARecordThatItTakes) {
    for (const off_t size : {kLimit, kLimit + 1}) {
        makeFile(size);
        arraysAllocated = 0;
        write();
        EXPECT_EQ(arraysAllocated, size == kLimit ? 1 : 0);
    }
}

TEST_F(FallbackFileTest, GivesNothingToAPipeAndWaitsForNoReader) {
    mkfifo(kFallbackFile, 0666);
    EXPECT_EQ(write(), kTurnedOver);
    char byte;
    const int reader = open(kFallbackFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(write(), kTurnedOver);
    EXPECT_LE(read(reader, &byte, 1), 0) << "there is something to read";
    close(reader);
}

TEST_F(FallbackFileTest, KeepsWhatAnotherHasAppendedBehindAShortRecord) {
    nextWrite = [](int fd, const char* data, size_t /*length*/) {
        const ssize_t written = real_write(fd, data, 9);
        appendAsAnother(kRecord);
        return written;
    };
    EXPECT_EQ(write(), kTurnedOver);
    EXPECT_EQ(contents(kFallbackFile), kRecord.substr(0, 9) + kRecord);
}

TEST_F(FallbackFileTest, KeepsWhatAnotherThreadAppendsWhileAShortRecordIsCutAway) {
    std::thread other;
    std::atomic<bool> written{false};
    nextWrite = [](int fd, const char* data, size_t /*length*/) { return real_write(fd, data, 9); };
    beforeCut = [&] {
        other = std::thread([&] { written = write() == kTurnedOver; });
        EXPECT_TRUE(eventually([&] { return written || waiters() == 1; }));
    };
    makeFile(0);
    EXPECT_EQ(write(), kTurnedOver);
    other.join();
    beforeCut = [] {};
    EXPECT_EQ(contents(kFallbackFile), kRecord);
}

const size_t kProcesses = 4;

/// Lets processes turn over `count` records each, at once.
void turnOverFromProcesses(int count) {
    pid_t children[kProcesses];
    for (size_t i = 0; i < kProcesses; ++i) {
        children[i] = runInChild([=] {
            CLogger logger;
            EXPECT_EQ(logger.init("app"), 0);
            for (int number = 0; number < count; ++number) {
                const std::string body(101 + 7 * i, 'x');
                EXPECT_EQ(logger.write_baselog(1, body, false, 1), kTurnedOver);
            }
        });
    }
    std::for_each(std::begin(children), std::end(children), awaitChild);
}

TEST_F(FallbackFileTest, HoldsOnlyWholeRecordsAfterItsDiskWasFull) {
    const std::string filler = std::string(kFallbackDirectory) + "/filler";
    ASSERT_EQ(mount("none", kFallbackDirectory, "tmpfs", 0, "size=64k"), 0);
    std::ofstream(filler) << std::string(49152, 'x');
    turnOverFromProcesses(60);
    const size_t whole = fallbackRecords().size();
    EXPECT_LT(whole, kProcesses * 60) << "the disk was not full";
    std::filesystem::remove(filler);
    turnOverFromProcesses(5);
    EXPECT_EQ(fallbackRecords().size(), whole + kProcesses * 5);
    umount2(kFallbackDirectory, MNT_DETACH);
}

/// The file has 10 bytes before the write, and a record has 30.
class FileSizeLimitTest : public FallbackFileTest {
 protected:
    size_t sizeAfterWrite(rlim_t size) {
        const rlimit limit = {size, RLIM_INFINITY}, none = {RLIM_INFINITY, RLIM_INFINITY};
        makeFile(10);
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(write(), kTurnedOver);
        setrlimit(RLIMIT_FSIZE, &none);
        return std::filesystem::file_size(kFallbackFile);
    }
};

TEST_F(FileSizeLimitTest, LetsThroughWhatDoesNotExceedIt) {
    EXPECT_EQ(sizeAfterWrite(40), 40U);
    EXPECT_EQ(sizeAfterWrite(39), 10U);
}

// Others let the file grow to the limit just before the write, which then raises SIGXFSZ.
TEST_F(FileSizeLimitTest, RaisesNoSignal) {
    nextWrite = [](int fd, const char* data, size_t length) {
        appendAsAnother(std::string(30, '.'));
        return real_write(fd, data, length);
    };
    EXPECT_EQ(sizeAfterWrite(40), 40U);
}

}  // namespace
}  // namespace Quorvel
