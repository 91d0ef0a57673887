#include "sampling_table.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>

#include <algorithm>
#include <stdexcept>

namespace Quorvel {
namespace {

const size_t kSegmentSize = kSamplingSlots * sizeof(AppItem);
const uint8_t kKeepAll = 1;

const char kRemake[] = "remove it (ipcrm -M 9777), then \"qvctl rates create\"";

[[noreturn]] void failWithErrno(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

/// @param use what this process cannot do with the table
[[noreturn]] void failToUse(const std::string& use) {
    const std::string remedy =
        errno == EACCES ? std::string("; applications need mode 0666: ") + kRemake : "";
    throw std::runtime_error("cannot " + use + " the sampling table: " + strerror(errno) + remedy);
}

void storeByte(void* to, size_t offset, uint8_t value) {
    __atomic_store_n(static_cast<uint8_t*>(to) + offset, value, __ATOMIC_RELEASE);
}

void storeRates(AppItem& slot, LogTypes types, uint8_t rate) {
    for (int type = types.first; type <= types.last; ++type) {
        storeByte(&slot.logTypeItems[type].sampling, 0, rate);
    }
}

/// @return the table's slot with this name; null when it has none.
AppItem* find(AppItem* table, const std::string& name) {
    const std::vector<AppItem> slots = usedSlots(table);
    const auto found = std::find_if(slots.begin(), slots.end(), [&name](const AppItem& slot) {
        return slotName(slot) == name;
    });
    return found != slots.end() ? table + (found - slots.begin()) : nullptr;
}

int findSegment() {
    const int id = shmget(kSamplingKey, 0, 0);
    if (id < 0 && errno == ENOENT) {
        throw std::runtime_error(
            "there is no sampling table (shared memory with key 9777): the agent makes it, or "
            "\"qvctl rates create\"");
    }
    if (id < 0) {
        failToUse("find");
    }
    return id;
}

}  // namespace

std::vector<AppItem> usedSlots(const AppItem* table) {
    std::vector<AppItem> slots;
    while (slots.size() < kSamplingSlots &&
           __atomic_load_n(&table[slots.size()].isUsed, __ATOMIC_ACQUIRE) != 0) {
        slots.push_back(table[slots.size()]);
    }
    return slots;
}

std::string slotName(const AppItem& slot) {
    return {slot.appname, strnlen(slot.appname, sizeof(slot.appname))};
}

AppItem setRates(AppItem* table, const std::string& name, LogTypes types, uint8_t rate) {
    if (AppItem* const slot = find(table, name)) {
        storeRates(*slot, types, rate);
        return *slot;
    }
    const size_t free = usedSlots(table).size();
    if (free == kSamplingSlots) {
        throw std::runtime_error("the sampling table is full: its " +
                                 std::to_string(kSamplingSlots) + " slots hold other applications");
    }
    AppItem fresh{};
    fresh.isUsed = 1;
    name.copy(fresh.appname, sizeof(fresh.appname) - 1);
    storeRates(fresh, LogTypes(), kKeepAll);
    storeRates(fresh, types, rate);
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&fresh);
    for (size_t offset = sizeof(fresh); offset-- > 0;) {  // isUsed is the first byte
        storeByte(&table[free], offset, bytes[offset]);
    }
    return fresh;
}

AppItem clearRates(AppItem* table, const std::string& name) {
    AppItem* const slot = find(table, name);
    if (slot == nullptr) {
        throw std::runtime_error("the sampling table has no such application");
    }
    storeRates(*slot, LogTypes(), kKeepAll);
    return *slot;
}

SamplingSegment::SamplingSegment(Access access) {
    const int id = findSegment();
    if (shmctl(id, IPC_STAT, &m_status) != 0) {
        failToUse("look at");
    }
    if (m_status.shm_segsz < kSegmentSize) {
        throw std::runtime_error(
            "the shared memory with key 9777 has " + std::to_string(m_status.shm_segsz) +
            " bytes, and applications need " + std::to_string(kSegmentSize) + ": " + kRemake);
    }
    void* const address = shmat(id, nullptr, access == Access::kRead ? SHM_RDONLY : 0);
    if (address == reinterpret_cast<void*>(-1)) {
        failToUse(access == Access::kRead ? "read" : "change");
    }
    m_table = static_cast<AppItem*>(address);
}

SamplingWriterLock::SamplingWriterLock(void (*waits)())
    : m_directory(open(kSamplingLock, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    int result = m_directory.get() < 0 ? -1 : flock(m_directory.get(), LOCK_EX | LOCK_NB);
    if (result != 0 && errno == EWOULDBLOCK) {
        waits();
        result = flock(m_directory.get(), LOCK_EX);
    }
    if (result != 0) {
        failWithErrno(std::string("cannot lock ") + kSamplingLock);
    }
}

bool createSamplingSegment() {
    if (shmget(kSamplingKey, kSegmentSize, IPC_CREAT | IPC_EXCL | 0666) >= 0) {
        return true;
    }
    if (errno != EEXIST) {
        failWithErrno("cannot create the sampling table");
    }
    return false;
}

bool hasSamplingMarker() { return access(kSamplingMarker, F_OK) == 0; }

bool createSamplingMarker() {
    const Descriptor marker(open(kSamplingMarker, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (marker.get() < 0 && !hasSamplingMarker()) {
        failWithErrno(std::string("cannot create ") + kSamplingMarker);
    }
    return marker.get() >= 0;
}

}  // namespace Quorvel
