#ifndef QUORVEL_SAMPLING_TABLE_H
#define QUORVEL_SAMPLING_TABLE_H

#include <qvapi_sampling.h>
#include <sys/shm.h>

#include <string>
#include <vector>

#include "descriptor.h"
#include "log_types.h"

namespace Quorvel {

const key_t kSamplingKey = 9777;
const size_t kSamplingSlots = 100;
// Present on every Linux host, open to every user, and shared by containers that share the segment.
const char kSamplingLock[] = "/dev/shm";
const char kSamplingMarker[] = "/data/qvagent/qv_shm_sampling";

/// The slots in use as a reader meets them: those before the first free one.
std::vector<AppItem> usedSlots(const AppItem* table);

std::string slotName(const AppItem& slot);

/// Publishes `rate` for the log types of the application, in a new slot when it has none. A reader
/// may look at any moment: it meets a new slot only when it is whole, and any rate whole.
/// @param name of 1 to 255 bytes, no NUL among them
/// @return what the slot holds then
/// Throws when every slot holds another name, and changes nothing then.
AppItem setRates(AppItem* table, const std::string& name, LogTypes types, uint8_t rate);

/// Sets every rate of the application to 1. Its slot stays, since readers keep theirs for life.
/// @return what the slot holds then
/// Throws when the application has no slot.
AppItem clearRates(AppItem* table, const std::string& name);

/// The segment with the shared table, attached from construction to destruction. Throws when it is
/// missing or too small, or this process may not use it so.
class SamplingSegment {
 public:
    enum class Access { kRead, kChange };

    explicit SamplingSegment(Access access);
    ~SamplingSegment() { shmdt(m_table); }
    SamplingSegment(const SamplingSegment&) = delete;
    SamplingSegment& operator=(const SamplingSegment&) = delete;

    AppItem* table() const { return m_table; }
    const shmid_ds& status() const { return m_status; }

 private:
    shmid_ds m_status;
    AppItem* m_table;
};

/// Held by the one process of this tool that changes the table. Leaves nothing behind.
class SamplingWriterLock {
 public:
    /// Waits until no other process holds it.
    /// @param waits called first when one does.
    explicit SamplingWriterLock(void (*waits)());

 private:
    Descriptor m_directory;
};

/// Creates the segment with an empty table when there is none.
/// @return whether it created it.
bool createSamplingSegment();

/// Whether the file that tells readers that the table is ready is there.
bool hasSamplingMarker();

/// Creates that file when it is missing.
/// @return whether it created it.
bool createSamplingMarker();

}  // namespace Quorvel

#endif  // QUORVEL_SAMPLING_TABLE_H
