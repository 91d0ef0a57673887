#ifndef QVAPI_SAMPLING_H
#define QVAPI_SAMPLING_H

#include <stdint.h>
#include <time.h>

#include <atomic>
#include <string>

#include "qvapi_abi.h"

namespace Quorvel {

/// One log type's entry in a slot of the shared table. Packed: `count` is unaligned.
struct __attribute__((packed)) LogTypeItem {
    uint8_t sampling;  ///< 0, 1: keep all; 2 to 254: keep one in N; 255: drop all
    char reserved;
    uint32_t count;  ///< neither read nor written by the library
};

/// One application's slot of the shared table. The agent writes it, this library only reads it.
/// All integers are in the host's byte order.
struct AppItem {
    char isUsed;                    ///< non-zero: in use. Slots in use form a prefix of the table.
    char reserved[3];               ///< nothing
    char appname[256];              ///< NUL-terminated unless all 256 bytes are the name
    LogTypeItem logTypeItems[128];  ///< entry t holds the rate of log type t
};

/// Size of the shared table in bytes: 100 slots.
const int QV_SAMPLING_TABLE_SIZE = 100 * static_cast<int>(sizeof(AppItem));

static_assert(sizeof(LogTypeItem) == 6 && sizeof(AppItem) == 1028 &&
                  QV_SAMPLING_TABLE_SIZE == 102800,
              "shared with the agent");

/// Reader of the sampling rates that the agent publishes in a System V shared-memory segment
/// (shmget(2)). While the table or the application's slot cannot be found every record is kept, and
/// a rate request looks again at most once every 60 seconds. Never writes into the table and never
/// removes the segment. No operation fails loudly or keeps an error text.
///
/// Thread safety: init() and the destructor need the object to themselves; needFilter() and
/// fetchSampling() may be called from any number of threads at once. Every operation leaves errno
/// as it was.
class Sampling {
 public:
    /// Attaches nothing; until init() every record is kept.
    Sampling();
    /// Detaches the table (shmdt(2)).
    ~Sampling();
    Sampling(const Sampling&) = delete;
    Sampling& operator=(const Sampling&) = delete;

    /// Call it once. Attaches the segment `shmKey` of `shmSize` bytes (at least 102800; created
    /// with permissions 0666 when missing) and looks for the slot named `name`. A name of more than
    /// 256 bytes or with a NUL in it is never found. The file "/data/qvagent/qv_shm_sampling" marks
    /// the table as ready; without it the first search waits for a rate request 60 seconds later.
    /// @return 0: slot found; -1: no table, not ready, or not among the slots in use; -2: every
    ///   slot holds another name. The reader works in each case.
    int init(std::string& name, int shmKey, int shmSize);

    /// Decides about one record of `logType`. Rates 2 to 254 let through exactly one call in N,
    /// counted over all threads and all log types with such a rate. Negative types are kept.
    /// @return true when the record is to be dropped.
    bool needFilter(int8_t logType);

    /// @return the raw rate of `logType`, 0 to 255; 1 while no slot is known and for negative
    /// types.
    int fetchSampling(int8_t logType) { return getSampling(logType); }

 private:
    friend class CLogger;
    struct State;
    enum class Decision { kKeep, kDrop, kLookUp };

    int getShm(int key, int size);
    int findIndex();
    int tryGetIndex();
    int retryLookup();
    uint8_t getSampling(int8_t logType);
    /// Where the rate of `logType`, 0 and more, is to be read; null while no slot is known.
    const uint8_t* knownRate(int8_t logType) const;
    /// What the rate alone says about one record of `logType`, 0 and more; kLookUp where the calls
    /// are counted or no slot is known.
    Decision decide(int8_t logType);
    /// needFilter() for kLookUp.
    bool lookUp(int8_t logType);

    std::atomic<uint32_t> m_count;
    std::atomic<AppItem*> m_shmPtr;
    int m_shmID;
    std::atomic<char> m_status;
    int m_key;
    int m_size;
    int m_minIndex;
    int m_maxIndex;
    std::atomic<int> m_index;
    std::atomic<time_t> m_lastGetTime;
    std::string m_appname;
    State* m_pState;
};

}  // namespace Quorvel

#endif  // QVAPI_SAMPLING_H
