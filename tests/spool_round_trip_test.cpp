#include <sys/mman.h>
#include <sys/prctl.h>

#include <array>
#include <random>

#include "qvctl_shell.h"
#include "support.h"

namespace Quorvel {
namespace {

const int kProcesses = 4;
const int kThreads = 2;
const int kWriters = kProcesses * kThreads;
const int kRecords = (kIsSanitized ? 8000 : 100000) / kWriters;
const int kRecordsPerLogger = kRecords / 60;
const uint64_t kSocketSize = 64 << 10;
const char* const kHeard = "/data/heard/";

/// The number of a record, filled up with a letter of its own; a few take the long form.
std::string makeBody(int writer, int number) {
    const int filling = number % 1000 == 700 ? 40000 : 50 + number % 100;
    return std::to_string(number) + ":" + std::string(filling, static_cast<char>('a' + writer));
}

void end(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

/// Each writer's codes, of all processes.
using Codes = int[kWriters][kRecords];

/// Loggers that last for a while only, so that a new one tries to connect again at once.
void writeRecords(int writer, int* codes) {
    for (int first = 0; first < kRecords; first += kRecordsPerLogger) {
        CLogger logger(0);
        logger.init("app");
        for (int i = first; i < first + kRecordsPerLogger && i < kRecords; ++i) {
            codes[i] =
                logger.write_baselog(static_cast<int8_t>(writer), makeBody(writer, i), false, 1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

/// Serves the Unix socket, so slowly that its sockets are full, and keeps what it reads from each
/// connection in a file of its own before the socket knows that it was read.
void runAgent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int listener = openEndpoint(0);
    std::map<int, int> files;  // of the connections
    std::vector<char> bytes(4096);
    for (int count = 0;;) {
        for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
            const std::string name = std::to_string(getpid()) + "." + std::to_string(++count);
            files[fd] = creat((kHeard + name).c_str(), 0600);
        }
        for (const auto& [fd, file] : files) {
            const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
            if (size > 0 && write(file, bytes.data(), static_cast<size_t>(size)) == size) {
                recv(fd, bytes.data(), static_cast<size_t>(size), 0);
            }
        }
        usleep(2000);
    }
}

/// Processes that write, an agent that comes and goes, and replays that are killed.
class SpoolRoundTrip : public testing::Test {
 protected:
    SpoolRoundTrip()
        : m_codes(*static_cast<Codes*>(mmap(nullptr, sizeof(Codes), PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        makeFallbackDirectory();
        std::filesystem::create_directories(kHeard);
    }

    void pause() { usleep(100000 + m_random() % 300000); }

    /// Kills a replay, or the agent under it.
    void disturb() {
        Shell replay("exec qvctl spool replay");
        pause();
        ++m_kills;
        if (m_random() % 2 == 0) {
            replay.finish(SIGKILL);
        } else {
            end(m_agent);
            replay.finish();
            pause();
            m_agent = runInChild(runAgent);
        }
    }

    /// Counts the records in the files that the agents kept.
    void countArrivals() {
        for (const auto& file : std::filesystem::directory_iterator(kHeard)) {
            const std::string bytes = contents(file.path());
            RequestDecoder decoder;
            decoder.feed(bytes.data(), bytes.size());
            RequestView record;
            while (decoder.next(record) == RequestDecoder::Status::kRequest) {
                const int number = std::stoi(std::string(record.body));
                EXPECT_EQ(record.body, makeBody(record.logType, number));
                ++m_arrivals.at(record.logType).at(number);
            }
            EXPECT_EQ(decoder.error(), "");
        }
    }

    Codes& m_codes;
    std::mt19937 m_random{1};
    pid_t m_agent = runInChild(runAgent);
    uint64_t m_kills = 0;
    std::array<std::array<int, kRecords>, kWriters> m_arrivals{};
};

TEST_F(SpoolRoundTrip, BringsInWhatWasTurnedOverWhateverIsKilled) {
    std::vector<pid_t> writers;
    for (int process = 0; process < kProcesses; ++process) {
        writers.push_back(runInChild([&] {
            onThreads(kThreads, [&](int thread) {
                const int writer = process * kThreads + thread;
                writeRecords(writer, m_codes[writer]);
            });
        }));
    }
    for (const pid_t writer : writers) {
        while (waitpid(writer, nullptr, WNOHANG) == 0) {
            disturb();
        }
    }
    run("qvctl spool replay --wait");
    end(m_agent);
    countArrivals();

    int turnedOver = 0;
    uint64_t repeated = 0;
    for (int writer = 0; writer < kWriters; ++writer) {
        for (int i = 0; i < kRecords; ++i) {
            const int arrivals = m_arrivals[writer][i];
            const bool isTurnedOver = m_codes[writer][i] != 0;
            ASSERT_TRUE(isTurnedOver ? arrivals >= 1 : arrivals <= 1)
                << arrivals << " arrivals of " << i << " of " << writer;
            turnedOver += isTurnedOver ? 1 : 0;
            repeated += std::max(arrivals - 1, 0) * (makeBody(writer, i).size() + 21);
        }
    }
    EXPECT_GT(turnedOver, kWriters * kRecords / 10);
    EXPECT_LE(repeated, m_kills * kSocketSize) << m_kills << " kills";
}

}  // namespace
}  // namespace Quorvel
