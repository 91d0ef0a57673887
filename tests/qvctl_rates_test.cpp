#include <cstring>

#include "qvctl_shell.h"
#include "sampling_table.h"

namespace Quorvel {
namespace {

const size_t kSize = 102800;
const size_t kSlotSize = 1028;

// With an empty table and its marker, unless a test makes another segment.
class QvctlRates : public testing::Test {
 protected:
    QvctlRates() {
        std::filesystem::create_directories("/data/qvagent");
        const std::ofstream marker("/data/qvagent/qv_shm_sampling");
        makeSegment(kSize, 0666);
    }
    ~QvctlRates() override { removeSegment(); }

    void makeSegment(size_t size, int mode) {
        removeSegment();
        m_id = shmget(9777, size, IPC_CREAT | 0600);
        m_bytes = static_cast<char*>(shmat(m_id, nullptr, 0));
        m_size = size;
        shmid_ds status = {};
        status.shm_perm.mode = static_cast<unsigned short>(mode);
        EXPECT_EQ(shmctl(m_id, IPC_SET, &status), 0);
    }
    void removeSegment() {
        shmdt(m_bytes);
        shmctl(m_id, IPC_RMID, nullptr);
    }
    std::string bytes() const { return {m_bytes, m_size}; }
    void use(int slot, const std::string& name) {
        m_bytes[slot * kSlotSize] = 1;
        name.copy(m_bytes + slot * kSlotSize + 4, name.size());
    }

    int m_id = -1;
    size_t m_size = 0;
    char* m_bytes = nullptr;
};

TEST_F(QvctlRates, SetTakesEffectAtTheNextRecordOfARunningApplication) {
    run("qvctl rates set app all 1");
    std::string name = "app";
    Sampling reader;
    ASSERT_EQ(reader.init(name, 9777, kSize), 0);
    run("qvctl rates set app 5-6 255");
    EXPECT_TRUE(reader.needFilter(5) && reader.needFilter(6));
    EXPECT_FALSE(reader.needFilter(4) || reader.needFilter(7));
    run("qvctl rates clear app");
    EXPECT_FALSE(reader.needFilter(5));
}

TEST_F(QvctlRates, SetWritesTheBytesThatReadersAndTheAgentExpect) {
    memset(m_bytes, 77, m_size);  // as another table left it
    m_bytes[2 * kSlotSize] = 0;
    use(0, std::string("other\0", 6));
    use(1, std::string("app\0", 4));
    std::string expected = bytes();
    expected[kSlotSize + 260 + 126 * 6] = expected[kSlotSize + 260 + 127 * 6] = '\xFE';
    run("qvctl rates set app 126-127 254");
    EXPECT_TRUE(bytes() == expected);

    std::string slot = "\1" + std::string(3, 0) + "new" + std::string(253, 0);
    for (int type = 0; type < 128; ++type) {
        slot += std::string(1, type == 0 ? 2 : 1) + std::string(5, 0);
    }
    run("qvctl rates set new 0 2");
    EXPECT_TRUE(bytes() == expected.replace(2 * kSlotSize, kSlotSize, slot));
}

TEST_F(QvctlRates, ReadersMeetOnlyWholeSlots) {
    Shell writers("for i in {10..39}; do qvctl rates set app$i all 7; done");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (int slot = 0; slot < 30;) {
        const char* const bytes = m_bytes + slot * kSlotSize;
        if (__atomic_load_n(bytes, __ATOMIC_ACQUIRE) != 0) {
            const char lastRate = __atomic_load_n(bytes + 260 + 127 * 6, __ATOMIC_RELAXED);
            EXPECT_EQ(lastRate, 7);
            EXPECT_EQ(std::string(bytes + 4), "app" + std::to_string(10 + slot++));
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    }
    writers.finish();
}

TEST_F(QvctlRates, WritersWaitForEachOther) {
    auto lock = std::make_unique<SamplingWriterLock>([] {});
    Shell writer("exec qvctl rates set app all 7");
    const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(writer.pid());
    EXPECT_TRUE(
        eventually([&] { return contents("/proc/locks").find(waiting) != std::string::npos; }));
    EXPECT_TRUE(writer.prints("waiting until no other process has /dev/shm locked\n"));
    EXPECT_EQ(bytes(), std::string(kSize, '\0'));
    lock.reset();
    EXPECT_EQ(writer.finish(), 0);
    EXPECT_EQ(m_bytes[0], 1);
}

TEST_F(QvctlRates, JsonAgreesWithTheLibraryOnEveryRate) {
    std::string sampled, all;
    for (int row = 0; row < 256; ++row) {
        std::string name = row < 128 ? "even" : "odd";
        use(row / 128, name);
        m_bytes[row / 128 * kSlotSize + 260 + row % 128 * 6] =
            static_cast<char>(2 * row + row / 128);
        Sampling reader;
        EXPECT_EQ(reader.init(name, 9777, kSize), 0);
        const int rate = reader.fetchSampling(static_cast<int8_t>(row % 128));
        all += R"({"application":")" + name + R"(","logType":)" + std::to_string(row % 128) +
               R"(,"rate":)" + std::to_string(rate) + "}\n";
        sampled += rate > 1 ? all.substr(all.rfind('{')) : "";
    }
    EXPECT_EQ(run("qvctl rates --json"), sampled);
    EXPECT_EQ(run("qvctl rates --json --all"), all);
}

TEST_F(QvctlRates, ShowsRangesAndNamesOfAnyBytes) {
    use(0, "a\xFF\n" + std::string(252, 'b') + "!");  // and no NUL
    m_bytes[260 + 5 * 6] = m_bytes[260 + 6 * 6] = '\xFF';
    const std::string name = "a\\xFF\\x0A" + std::string(252, 'b') + "!";
    run("qvctl rates", 0, "1 of 100\n" + name + " types 0-4: rate 0, every");
    run("qvctl rates", 0, name + " types 5-6: rate 255, every record is dropped\n");
    run("qvctl rates --json", 0, R"(,"applicationEncoding":"base64","logType":5,"rate":255})");
}

TEST_F(QvctlRates, RefusesWhatItCannotDoAndLeavesTheTable) {
    const std::string noPermission = "setpriv --bounding-set=-ipc_owner ";
    const std::tuple<size_t, int, int, std::string, int, std::string> rows[] = {
        {kSize, 0666, 100, "qvctl rates set app 1 2", 1, "table is full: its 100 slots"},
        {kSize, 0666, 100, "qvctl rates clear app", 1, "has no such application"},
        {kSize - 1, 0666, 0, "qvctl rates", 1, "has 102799 bytes, and applications need 102800"},
        {kSize - 1, 0666, 0, "qvctl rates set app 1 2", 1, "has 102799 bytes"},
        {kSize - 1, 0666, 0, "qvctl rates create", 1, "has 102799 bytes"},
        {kSize, 0, 0, noPermission + "qvctl rates", 1, "denied; applications need mode 0666: "},
        {kSize, 0444, 0, noPermission + "qvctl rates set app 1 2", 1, "change the sampling table"},
        {kSize, 0666, 0, "qvctl rates set app 128 2", 2, "0 to 127"},
        {kSize, 0666, 0, "qvctl rates set app 9-5 2", 2, "0 to 127"},
        {kSize, 0666, 0, "qvctl rates set app all 256", 2, "RATE"},
        {kSize, 0666, 0, "qvctl rates set app all 0x10", 2, "RATE"},
        {kSize, 0666, 0, "qvctl rates set '' 1 2", 2, "1 to 255 bytes, not 0"},
        {kSize, 0666, 0, "qvctl rates set $(printf %0256d) 1 2", 2, "1 to 255 bytes, not 256"},
    };
    for (const auto& [size, mode, usedSlots, command, code, message] : rows) {
        makeSegment(size, mode);
        for (int slot = 0; slot < usedSlots; ++slot) {
            use(slot, "app" + std::to_string(slot));
        }
        const std::string before = bytes();
        run(command, code, message);
        EXPECT_TRUE(bytes() == before) << command;
    }
}

TEST_F(QvctlRates, CreateMakesATableAndAMarkerThatReadersTake) {
    removeSegment();
    run("qvctl rates set app 1 2", 1, "there is no sampling table");
    std::filesystem::remove("/data/qvagent/qv_shm_sampling");
    run("umask 077; qvctl rates create && qvctl rates create && qvctl rates set app 1 2");
    m_id = shmget(9777, kSize, 0666);
    std::string name = "app";
    Sampling reader;
    EXPECT_EQ(reader.init(name, 9777, kSize), 0);
    EXPECT_EQ(reader.fetchSampling(1), 2);
}

}  // namespace
}  // namespace Quorvel
