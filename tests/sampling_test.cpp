#include <sys/shm.h>

#include <future>
#include <vector>

#include "qvapi_cpp.h"
#include "qvapi_sampling.h"
#include "support.h"

namespace {

std::string failing;
std::function<void()> onShmget = [] {};

}  // namespace

extern "C" int shmget(key_t key, size_t size, int flags) noexcept {
    onShmget();
    errno = EACCES;
    return failing == "shmget" ? -1 : Quorvel::callReal<int>("shmget", key, size, flags);
}

extern "C" void* shmat(int id, const void* address, int flags) noexcept {
    errno = EMFILE;
    return failing == "shmat" ? reinterpret_cast<void*>(-1)
                              : Quorvel::callReal<void*>("shmat", id, address, flags);
}

namespace Quorvel {
namespace {

const int kSize = 102800;
const char* const kMarker = "/data/qvagent/qv_shm_sampling";

// The segment, created if it is missing and then as the agent publishes it. No reader may remove it
// or stay attached.
class Table {
 public:
    Table() : m_id(shmget(9777, kSize, IPC_CREAT | 0666)) {
        m_bytes = static_cast<char*>(shmat(m_id, nullptr, 0));
        std::filesystem::create_directories("/data/qvagent");
        const std::ofstream marker(kMarker);
    }
    ~Table() {
        EXPECT_EQ(status().shm_nattch, 1U);
        EXPECT_EQ(shmdt(m_bytes) + shmctl(m_id, IPC_RMID, nullptr), 0);
    }
    void setName(int slot, const std::string& name) {
        m_bytes[slot * 1028] = 1;
        name.copy(m_bytes + slot * 1028 + 4, name.size());
    }
    void setRate(int slot, int type, int rate) {
        m_bytes[slot * 1028 + 260 + type * 6] = static_cast<char>(rate);
    }
    std::string bytes() const { return {m_bytes, kSize}; }
    shmid_ds status() const {
        shmid_ds status = {};
        EXPECT_EQ(shmctl(m_id, IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_perm.mode, 0666) << "others need access; a removed one is marked";
        return status;
    }

 private:
    const int m_id;
    char* m_bytes;
};

int init(Sampling& reader, std::string name = "app", int size = kSize) {
    return keepingErrno([&] { return reader.init(name, 9777, size); });
}

bool drops(Sampling& reader, int8_t type) {
    return keepingErrno([&] { return reader.needFilter(type); });
}

TEST(SamplingTest, FindsTheSlotWhoseNameIsTheWholeNameAndKeepsIt) {
    const std::string longest(256, 'a');
    const std::string withNul("app\0x", 5);
    // How many slots are in use ahead; the slot, its name, the application's name; the result.
    const std::tuple<int, int, std::string, std::string, int> rows[] = {
        {0, 0, "app", "app", 0},
        {99, 99, "app", "app", 0},
        {99, 99, "apq", "app", -2},
        {5, 5, "apq", "app", -1},
        {5, 6, "app", "app", -1},
        {0, 0, "App", "app", -1},
        {0, 0, "ap", "app", -1},
        {0, 0, "appl", "app", -1},
        {0, 0, longest, longest, 0},
        {0, 0, longest, longest + "a", -1},
        {0, 0, longest, longest.substr(1), -1},
        {0, 0, withNul, "app", 0},
        {0, 0, withNul, withNul, -1}};
    for (const auto& [others, slot, slotName, name, result] : rows) {
        SCOPED_TRACE(slotName + " in " + std::to_string(slot) + ", " + name);
        Table table;
        for (int i = 0; i < others; ++i) {
            table.setName(i, "other");
        }
        table.setName(slot, slotName);
        table.setRate(slot, 127, 9);
        const std::string before = table.bytes();
        Sampling reader;
        EXPECT_EQ(init(reader, name), result);
        EXPECT_EQ(drops(reader, 127), result == 0);
        EXPECT_TRUE(table.bytes() == before);
        table.setName(slot, "gone");
        EXPECT_EQ(reader.fetchSampling(127), result == 0 ? 9 : 1);
    }
}

TEST(SamplingTest, KeepsOneInNCountedOverAllLogTypes) {
    Table table;
    table.setName(0, "app");
    for (const int rate : {0, 1, 2, 3, 254, 255}) {
        SCOPED_TRACE(rate);
        Sampling reader;
        EXPECT_EQ(init(reader), 0);
        for (int call = 1; call <= 600; ++call) {
            const auto type = static_cast<int8_t>(call % 128);
            table.setRate(0, type, rate);
            EXPECT_EQ(reader.fetchSampling(type), rate);
            EXPECT_EQ(drops(reader, type), rate == 255 || (rate > 1 && call % rate != 0)) << call;
            table.setRate(0, 7, call % 2 == 0 ? 255 : call % 4 / 2);
            EXPECT_EQ(drops(reader, 7), call % 2 == 0) << "and does not count";
            EXPECT_FALSE(drops(reader, call % 2 == 0 ? -1 : -128)) << "and does not count";
        }
    }
}

TEST(SamplingTest, LooksAgainNoSoonerThan60SecondsAfterTheLastAttempt) {
    // What is missing until the first attempt after init, and the second that finds the slot.
    const std::pair<std::string, int> rows[] = {
        {"marker", 60}, {"slot", 120}, {"shmget", 120}, {"shmat", 120}, {"bytes", 999}};
    for (const auto& [missing, found] : rows) {
        SCOPED_TRACE(missing);
        Table table;
        table.setName(0, missing == "slot" ? "other" : "app");
        table.setRate(0, 1, 255);
        EXPECT_EQ(missing == "marker" ? unlink(kMarker) : 0, 0);
        failing = missing;
        now = 1400000000;
        Sampling reader;
        EXPECT_FALSE(drops(reader, 1));
        EXPECT_EQ(init(reader, "app", missing == "bytes" ? kSize - 1 : kSize), -1);
        EXPECT_EQ(table.status().shm_nattch, missing == "marker" || missing == "slot" ? 2U : 1U);
        for (const int second : {0, 59, -1000, 60, 61, 119, 120, 121}) {
            now = 1400000000 + second;
            EXPECT_EQ(drops(reader, 1), second > found) << second;
            if (second >= 60) {
                failing.clear();
                table.setName(0, std::string("app\0", 4));
            }
        }
    }
}

TEST(SamplingTest, KeepsTheRecordsOfOtherThreadsWhileOneSearches) {
    Sampling reader;
    failing = "shmget";
    now = 1400000000;
    EXPECT_EQ(init(reader), -1);
    now += 60;
    int calls = 0;
    onShmget = [&] {
        now += 60;
        if (++calls == 1) {
            EXPECT_FALSE(std::async(std::launch::async, [&] { return drops(reader, 1); }).get());
        }
    };
    alarm(60);  // for a search that others wait for
    EXPECT_FALSE(drops(reader, 1));
    alarm(0);
    EXPECT_EQ(calls, 2) << "one attempt to create and one to find the segment";
    onShmget = [] {};
    failing.clear();
}

TEST(SamplingTest, KeepsExactlyOneInNOverAllThreads) {
    Table table;
    table.setName(0, "app");
    table.setRate(0, 1, 7);
    Sampling reader;
    EXPECT_EQ(init(reader), 0);
    std::atomic<int> kept{0};
    std::vector<std::future<void>> threads(8);
    for (auto& thread : threads) {
        thread = std::async(std::launch::async, [&] {
            for (int call = 0; call < 10000; ++call) {
                kept += reader.needFilter(1) ? 0 : 1;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(kept, 80000 / 7);
}

TEST(SamplingTest, DropsBeforeALoggerLooksAtTheRecord) {
    Table table;
    table.setName(0, "app");
    table.setRate(0, 1, 255);
    CLogger logger;
    EXPECT_EQ(logger.init("app"), 0);
    EXPECT_EQ(logger.write_baselog(nullptr, 1, 2, 0, 1), 11);
    EXPECT_EQ(logger.write_baselog(nullptr, UINT32_MAX, 1, 2, 1), 0);
    EXPECT_EQ(logger.write_baselog(1, "data", false, 1), 0);
    EXPECT_EQ(logger.write_baselog(1, 1U, "%s", "data"), 0);
    EXPECT_EQ(logger.get_errmsg(), "comm_write: data is null");
}

}  // namespace
}  // namespace Quorvel
