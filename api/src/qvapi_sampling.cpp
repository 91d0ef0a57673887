#include "qvapi_sampling.h"

#include <stddef.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <mutex>

#include "fork_safety.h"
#include "locks.h"
#include "probes.h"

namespace Quorvel {
namespace {

const char* const kMarkerFile = "/data/qvagent/qv_shm_sampling";
const time_t kRetrySeconds = 60;

enum Status : char { kNotInitialised = -1, kNoTable = 0, kNoSlot = 1, kSlotFound = 2 };

const uint8_t kKeepAll = 1;
const uint8_t kDropAll = 255;

}  // namespace

struct Sampling::State final : ForkMember {
    /// Held by the one thread that attaches or searches.
    std::mutex lookup;

    explicit State(const Sampling* owner) { enrol(*this, owner); }
    ~State() { withdraw(*this); }

    void lockForFork() override { lookup.lock(); }
    void unlockAfterFork() override { lookup.unlock(); }
    void renewInChild() override { makeAnew(lookup); }
};

Sampling::Sampling()
    : m_count(0),
      m_shmPtr(nullptr),
      m_shmID(-1),
      m_status(kNotInitialised),
      m_key(0),
      m_size(0),
      m_minIndex(-1),
      m_maxIndex(-2),
      m_index(-1),
      m_lastGetTime(0),
      m_pState(nullptr) {
    const CallScope scope;
    m_pState = new State(this);
}

// Leaves nothing to the members' own destruction, which the scope does not cover.
Sampling::~Sampling() {
    const CallScope scope;
    if (m_shmPtr != nullptr) {
        shmdt(m_shmPtr);
    }
    delete m_pState;
    std::string().swap(m_appname);
}

int Sampling::init(std::string& name, int shmKey, int shmSize) {
    const CallScope scope;
    m_appname = name;
    m_key = shmKey;
    m_size = shmSize;
    const int ret = getShm(shmKey, shmSize);
    return ret != 0 ? ret : findIndex();
}

int Sampling::getShm(int key, int size) {
    m_lastGetTime = time(nullptr);
    m_status = kNoTable;
    m_shmID = shmget(key, size, IPC_CREAT | IPC_EXCL | 0666);
    if (m_shmID < 0) {
        m_shmID = shmget(key, size, 0666);
    }
    if (m_shmID < 0) {
        return -1;
    }
    void* const address = shmat(m_shmID, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        return -1;
    }
    if (size < QV_SAMPLING_TABLE_SIZE) {
        shmdt(address);
        return -1;
    }
    const AppItem* const previous = m_shmPtr.exchange(static_cast<AppItem*>(address));
    if (previous != nullptr) {
        shmdt(previous);
    }
    m_minIndex = 0;
    m_maxIndex = size / static_cast<int>(sizeof(AppItem)) - 1;
    m_status = kNoSlot;
    return access(kMarkerFile, F_OK) == 0 ? 0 : -1;
}

int Sampling::findIndex() {
    m_lastGetTime = time(nullptr);
    const AppItem* const table = m_shmPtr;
    if (table == nullptr) {
        return -1;
    }
    for (int i = m_minIndex; i <= m_maxIndex; ++i) {
        const AppItem& slot = table[i];
        if (slot.isUsed == 0) {
            m_status = kNoSlot;
            return -1;
        }
        if (strnlen(slot.appname, sizeof(slot.appname)) == m_appname.size() &&
            memcmp(slot.appname, m_appname.data(), m_appname.size()) == 0) {
            m_index = i;
            m_status = kSlotFound;
            return 0;
        }
    }
    m_status = kNoSlot;
    return -2;
}

int Sampling::tryGetIndex() {
    return time(nullptr) - m_lastGetTime < kRetrySeconds ? 0 : retryLookup();
}

[[gnu::cold, gnu::noinline]] int Sampling::retryLookup() {
    const CallScope scope;
    const std::unique_lock<std::mutex> guard(m_pState->lookup, std::try_to_lock);
    if (!guard.owns_lock() || time(nullptr) - m_lastGetTime < kRetrySeconds) {
        return 0;
    }
    if (m_status == kNoTable) {
        const int ret = getShm(m_key, m_size);
        if (ret != 0) {
            return ret;
        }
    }
    return m_status == kNoSlot ? findIndex() : 0;
}

const uint8_t* Sampling::knownRate(int8_t logType) const {
    if (m_status.load(std::memory_order_acquire) != kSlotFound) {
        return nullptr;
    }
    const AppItem* const table = m_shmPtr.load(std::memory_order_relaxed);
    const int index = m_index.load(std::memory_order_relaxed);
    if (table == nullptr || index == -1) {
        return nullptr;
    }
    // Kept from working out both offsets at once, which would cost a dropped record registers.
    const int slotSize = sizeof(AppItem);
    const char* slot =
        reinterpret_cast<const char*>(table) + static_cast<uint32_t>(index * slotSize);
    __asm__("" : "+r"(slot));
    const int item =
        offsetof(AppItem, logTypeItems) + static_cast<uint8_t>(logType) * sizeof(LogTypeItem);
    return reinterpret_cast<const uint8_t*>(slot + item);
}

uint8_t Sampling::getSampling(int8_t logType) {
    if (logType < 0) {
        return kKeepAll;
    }
    const uint8_t* const rate = knownRate(logType);
    if (rate != nullptr) {
        return __atomic_load_n(rate, __ATOMIC_RELAXED);
    }
    tryGetIndex();
    return kKeepAll;
}

// Small enough for its caller to keep a whole call's arguments in registers.
Sampling::Decision Sampling::decide(int8_t logType) {
    const uint8_t* const known = knownRate(logType);
    if (known == nullptr) {
        return Decision::kLookUp;
    }
    const uint8_t rate = __atomic_load_n(known, __ATOMIC_RELAXED);
    if (rate == kDropAll) {
        QVAPI_PROBE(sampled_out, m_appname.c_str(), int{logType}, int{kDropAll});
        return Decision::kDrop;
    }
    return rate <= kKeepAll ? Decision::kKeep : Decision::kLookUp;
}

bool Sampling::lookUp(int8_t logType) {
    const uint8_t rate = getSampling(logType);
    if (rate <= kKeepAll ||
        (rate != kDropAll && (m_count.fetch_add(1, std::memory_order_relaxed) + 1) % rate == 0)) {
        return false;
    }
    QVAPI_PROBE(sampled_out, m_appname.c_str(), int{logType}, int{rate});
    return true;
}

bool Sampling::needFilter(int8_t logType) {
    if (logType < 0) {
        return false;
    }
    const Decision decision = decide(logType);
    return decision == Decision::kLookUp ? lookUp(logType) : decision == Decision::kDrop;
}

}  // namespace Quorvel
