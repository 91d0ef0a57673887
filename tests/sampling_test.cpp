#include <string.h>
#include <sys/shm.h>

#include "qvapi_cpp.h"
#include "qvapi_sampling.h"
#include "support.h"

static std::string failing;

extern "C" int shmget(key_t key, size_t size, int flags) noexcept {
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

// With the segment as the agent publishes it. No reader may remove it or stay attached.
class SamplingTest : public testing::Test {
 protected:
    SamplingTest() {
        std::filesystem::create_directories("/data/qvagent");
        publish("app");
        now = 1400000000;
    }
    ~SamplingTest() override {
        EXPECT_EQ(attached(), 1U);
        shmdt(m_bytes);
        shmctl(m_id, IPC_RMID, nullptr);
    }
    void publish(const std::string& name, int slot = 0) {
        const std::ofstream marker("/data/qvagent/qv_shm_sampling");
        memset(m_bytes, 0, kSize);
        for (int used = 0; used <= slot; ++used) {
            m_bytes[used * 1028] = 1;
        }
        name.copy(m_bytes + slot * 1028 + 4, name.size());
    }
    void setRate(int type, int rate, int slot = 0) {
        m_bytes[slot * 1028 + 260 + type * 6] = static_cast<char>(rate);
    }
    shmatt_t attached() const {
        shmid_ds status = {};
        EXPECT_EQ(shmctl(m_id, IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_perm.mode, 0666) << "others need access; a removed one is marked";
        return status.shm_nattch;
    }
    static int init(Sampling& reader, std::string name = "app", int size = kSize) {
        return keepingErrno([&] { return reader.init(name, 9777, size); });
    }
    static bool drops(Sampling& reader, int8_t type) {
        return keepingErrno([&] { return reader.needFilter(type); });
    }

    const int m_id = shmget(9777, kSize, IPC_CREAT | 0666);
    char* const m_bytes = static_cast<char*>(shmat(m_id, nullptr, 0));
};

TEST_F(SamplingTest, FindsTheSlotWhoseNameIsTheWholeNameAndKeepsIt) {
    const std::string longest(256, 'a');
    const std::string withNul("app\0x", 5);
    // The last slot in use, its name, the application's name, the result.
    const std::tuple<int, std::string, std::string, int> rows[] = {
        {99, "app", "app", 0},  {99, "apq", "app", -2},   {5, "ap", "app", -1},
        {0, "appl", "app", -1}, {0, longest, longest, 0}, {0, longest, longest + "a", -1},
        {0, withNul, "app", 0}, {0, withNul, withNul, -1}};
    for (const auto& [slot, slotName, name, result] : rows) {
        SCOPED_TRACE(slotName + " for " + name);
        publish(slotName, slot);
        setRate(127, 9, slot);
        const std::string before(m_bytes, kSize);
        Sampling reader;
        EXPECT_EQ(init(reader, name), result);
        EXPECT_EQ(drops(reader, 127), result == 0);
        EXPECT_TRUE(before == std::string(m_bytes, kSize));
        m_bytes[slot * 1028 + 4] = 'x';
        EXPECT_EQ(reader.fetchSampling(127), result == 0 ? 9 : 1);
    }
}

TEST_F(SamplingTest, KeepsExactlyOneInNOverAllLogTypesAndThreads) {
    const std::pair<int, int> rows[] = {{0, 40000}, {1, 40000}, {7, 5714}, {254, 157}, {255, 0}};
    for (const auto& [rate, expected] : rows) {
        for (int type = 0; type < 126; ++type) {
            setRate(type, rate);
        }
        setRate(126, 255);
        Sampling reader;
        EXPECT_EQ(init(reader), 0);
        std::atomic<int> kept{0};
        std::vector<std::thread> threads(8);
        for (std::thread& thread : threads) {
            thread = std::thread([&] {
                for (int call = 0; call < 5000; ++call) {
                    kept += drops(reader, static_cast<int8_t>(call % 126)) ? 0 : 1;
                    EXPECT_TRUE(drops(reader, 126)) << "and does not count";
                    EXPECT_FALSE(drops(reader, call % 2 == 0 ? 127 : -128)) << "and does not count";
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(kept, expected) << rate;
    }
}

TEST_F(SamplingTest, LooksAgainNoSoonerThan60SecondsAfterTheLastAttempt) {
    // What is missing until the first attempt after init, and the second that finds the slot.
    const std::pair<std::string, int> rows[] = {
        {"marker", 60}, {"slot", 120}, {"shmget", 120}, {"shmat", 120}, {"bytes", 999}};
    for (const auto& [missing, found] : rows) {
        SCOPED_TRACE(missing);
        publish(missing == "slot" ? "oth" : "app");
        setRate(1, 255);
        EXPECT_EQ(missing == "marker" ? unlink("/data/qvagent/qv_shm_sampling") : 0, 0);
        failing = missing;
        now = 1400000000;
        Sampling reader;
        EXPECT_FALSE(drops(reader, 1));
        EXPECT_EQ(init(reader, "app", missing == "bytes" ? kSize - 1 : kSize), -1);
        EXPECT_EQ(attached(), missing == "marker" || missing == "slot" ? 2U : 1U);
        for (const int second : {0, 59, -1000, 60, 61, 119, 120, 121}) {
            now = 1400000000 + second;
            EXPECT_EQ(drops(reader, 1), second > found) << second;
            failing = second >= 60 ? "" : missing;
            strcpy(m_bytes + 4, second >= 60 || missing != "slot" ? "app" : "oth");
        }
    }
}

TEST_F(SamplingTest, DropsBeforeALoggerLooksAtTheRecord) {
    setRate(1, 255);
    CLogger logger;
    EXPECT_EQ(logger.init("app"), 0);
    EXPECT_EQ(logger.write_baselog(nullptr, UINT32_MAX, 1, 2, 1), 0);
    EXPECT_EQ(logger.write_baselog(1, "data", false, 1), 0);
    EXPECT_EQ(logger.write_baselog(1, 1U, "%s", "data"), 0);
    EXPECT_EQ(logger.get_errmsg(), "");
}

}  // namespace
}  // namespace Quorvel
