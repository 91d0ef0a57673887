#include "sampling_table.h"
#include "support.h"

namespace {

QUORVEL_REAL(shmget);
QUORVEL_REAL(shmat);

std::string failing;  ///< the call that fails

}  // namespace

extern "C" int shmget(key_t key, size_t size, int flags) noexcept {
    errno = EACCES;
    return failing == "shmget" ? -1 : real_shmget(key, size, flags);
}

extern "C" void* shmat(int id, const void* address, int flags) noexcept {
    errno = EMFILE;
    return failing == "shmat" ? reinterpret_cast<void*>(-1) : real_shmat(id, address, flags);
}

namespace Quorvel {
namespace {

const int kSize = 102800;
const time_t kStart = 1400000000;

/// With the segment as the agent publishes it, and "app" in its first slot.
class SamplingTest : public testing::Test {
 protected:
    SamplingTest() {
        makeFallbackDirectory();
        createSamplingMarker();
        publish("app");
        now = kStart;
    }
    ~SamplingTest() override {
        shmdt(m_table);
        shmctl(m_id, IPC_RMID, nullptr);
    }

    /// Gives a slot the name, and all before it that of another application.
    void publish(const std::string& name, int slot = 0) {
        memset(m_table, 0, kSize);
        for (int used = 0; used <= slot; ++used) {
            m_table[used].isUsed = 1;
        }
        memcpy(m_table[slot].appname, name.data(), name.size());
    }
    void setRate(int type, uint8_t rate, int slot = 0) {
        m_table[slot].logTypeItems[type].sampling = rate;
    }
    shmid_ds status() const {
        shmid_ds status = {};
        EXPECT_EQ(shmctl(m_id, IPC_STAT, &status), 0);
        return status;
    }
    static int init(Sampling& reader, std::string name = "app", int size = kSize) {
        return keepingErrno([&] { return reader.init(name, kSamplingKey, size); });
    }
    static bool drops(Sampling& reader, int type) {
        return keepingErrno([&] { return reader.needFilter(static_cast<int8_t>(type)); });
    }
    /// Whether the reader drops a record so many seconds after the start.
    static bool dropsAt(Sampling& reader, int seconds) {
        now = kStart + seconds;
        return drops(reader, 1);
    }

    int m_id = real_shmget(kSamplingKey, kSize, IPC_CREAT | 0666);
    AppItem* const m_table = static_cast<AppItem*>(real_shmat(m_id, nullptr, 0));
};

TEST_F(SamplingTest, FindsTheSlotWhoseNameIsTheWholeName) {
    const std::string longest(256, 'a');
    const std::string withNul("app\0x", 5);
    const std::tuple<int, std::string, std::string, int> rows[] = {
        {99, "app", "app", 0},  {99, "apq", "app", -2},   {5, "ap", "app", -1},
        {0, "appl", "app", -1}, {0, longest, longest, 0}, {0, longest, longest + "a", -1},
        {0, withNul, "app", 0}, {0, withNul, withNul, -1}};
    for (const auto& [lastSlot, slotName, name, result] : rows) {
        SCOPED_TRACE(slotName + " for " + name);
        publish(slotName, lastSlot);
        setRate(127, 9, lastSlot);
        Sampling reader;
        EXPECT_EQ(init(reader, name), result);
        EXPECT_EQ(reader.fetchSampling(127), result == 0 ? 9 : 1);
    }
}

TEST_F(SamplingTest, DetachesTheTableAndLeavesItInPlace) {
    {
        Sampling reader;
        init(reader);
        init(reader);
        EXPECT_EQ(status().shm_nattch, 2U);
    }
    EXPECT_EQ(status().shm_nattch, 1U);
    EXPECT_EQ(status().shm_perm.mode, 0666) << "marked as removed";
}

TEST_F(SamplingTest, MakesTheTableWhenThereIsNone) {
    shmctl(m_id, IPC_RMID, nullptr);
    Sampling reader;
    EXPECT_EQ(init(reader), -1);
    m_id = real_shmget(kSamplingKey, 0, 0);
    EXPECT_EQ(status().shm_segsz, size_t{kSize});
    EXPECT_EQ(status().shm_perm.mode, 0666);
}

TEST_F(SamplingTest, KeepsExactlyOneInNOverAllLogTypesAndThreads) {
    for (int type = 0; type < 126; ++type) {
        setRate(type, 7);
    }
    Sampling reader;
    EXPECT_EQ(init(reader), 0);
    std::atomic<int> kept{0};
    onThreads(8, [&](int /*thread*/) {
        for (int call = 0; call < 5000; ++call) {
            kept += drops(reader, call % 126) ? 0 : 1;
        }
    });
    EXPECT_EQ(kept, 8 * 5000 / 7);
}

TEST_F(SamplingTest, CountsOnlyWhatARateDecides) {
    setRate(1, 4);
    setRate(3, 255);
    Sampling reader;
    EXPECT_EQ(init(reader), 0);
    for (const int type : {1, 2, 3, -128, 1, 1}) {
        EXPECT_EQ(drops(reader, type), type == 1 || type == 3);
    }
    EXPECT_FALSE(drops(reader, 1));
}

TEST_F(SamplingTest, LooksAgainAMinuteAfterItLastLookedInVain) {
    setRate(1, 255);
    for (const std::string missing : {"shmget", "shmat", "slot"}) {
        SCOPED_TRACE(missing);
        failing = missing;
        m_table[0].appname[0] = missing == "slot" ? 'x' : 'a';
        now = kStart;
        Sampling reader;
        EXPECT_EQ(init(reader), -1);
        EXPECT_FALSE(dropsAt(reader, 100));
        failing.clear();
        m_table[0].appname[0] = 'a';
        for (const int second : {0, 159, -1000, 160}) {
            EXPECT_FALSE(dropsAt(reader, second)) << second;
        }
        EXPECT_TRUE(dropsAt(reader, 160)) << "the one before has found the slot";
    }
}

TEST_F(SamplingTest, UsesNoTableThatIsTooSmall) {
    setRate(1, 255);
    Sampling reader;
    EXPECT_EQ(init(reader, "app", kSize - 1), -1);
    EXPECT_FALSE(dropsAt(reader, 60));
    EXPECT_FALSE(dropsAt(reader, 60));
}

TEST_F(SamplingTest, KeepsEveryRecordAfterASecondInitInVain) {
    setRate(1, 255);
    Sampling reader;
    EXPECT_EQ(init(reader), 0);
    EXPECT_EQ(init(reader, "other"), -1);
    EXPECT_FALSE(drops(reader, 1));
    EXPECT_EQ(reader.fetchSampling(1), 1);
}

TEST_F(SamplingTest, DropsBeforeALoggerLooksAtTheRecord) {
    setRate(1, 255);
    CLogger logger;
    EXPECT_EQ(logger.init("app"), 0);
    EXPECT_EQ(logger.write_baselog(nullptr, UINT32_MAX, 1, 2, 1), 0);
}

int writeRaw(CLogger& logger) { return logger.write_baselog("data", 4, 1, 0, 1); }
int writeString(CLogger& logger) { return logger.write_baselog(1, "data", false, 1); }
int writeFormatted(CLogger& logger) { return logger.write_baselog(1, 1U, "%s", "data"); }

/// Each form of a base log, under the rates of the table.
class SampledLogTest : public SamplingTest,
                       public testing::WithParamInterface<int (*)(CLogger& logger)> {
 protected:
    /// Whether a record is sent, where none may fail.
    bool sends() {
        EXPECT_EQ(GetParam()(m_logger), 0);
        return m_agent.takeDatagram();
    }

    Agent m_agent{kUdp};
    CLogger m_logger{kUdp};
};

INSTANTIATE_TEST_SUITE_P(, SampledLogTest, testing::Values(writeRaw, writeString, writeFormatted));

TEST_P(SampledLogTest, IsSentOnceInNCalls) {
    setRate(1, 3);
    EXPECT_EQ(m_logger.init("app"), 0);
    for (const bool isSent : {false, false, true, false, false, true}) {
        EXPECT_EQ(sends(), isSent);
    }
}

TEST_P(SampledLogTest, LooksForTheSlotAMinuteAfterItWasMissing) {
    setRate(1, 255);
    EXPECT_EQ(m_logger.init("other"), 0);
    publish("other");
    setRate(1, 255);
    now = kStart + 60;
    EXPECT_TRUE(sends());
    EXPECT_FALSE(sends());
}

}  // namespace
}  // namespace Quorvel
