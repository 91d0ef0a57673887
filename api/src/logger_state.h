#ifndef QVAPI_LOGGER_STATE_H
#define QVAPI_LOGGER_STATE_H

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "error_text.h"
#include "fork_safety.h"
#include "qvapi_cpp.h"

namespace Quorvel {

/// The log type of binary module records.
const int8_t kModuleLogType = 127;

/// What a logger needs beyond the members that its layout names, and its part in forks.
struct CLogger::State final : ForkMember {
    explicit State(CLogger& owner)
        : logger(owner), errorText(owner.m_errmsg, owner.m_errMsgrwlock, owner.m_needLock) {
        enrol(*this, &owner);
    }
    ~State() { withdraw(*this); }

    void lockForFork() override;
    void unlockAfterFork() override;
    void renewInChild() override;

    CLogger& logger;
    ErrorText errorText;
    /// Guards the open batch and the settings of statistics.
    std::mutex statLock;
    std::atomic<bool> queueLockExists{false};
    /// Whether a fork took the queue's lock, which another thread may make meanwhile.
    bool queueLockedForFork = false;
    /// Guards the change of `stopping`, for which idle statistics threads wait. No fork takes it:
    /// a child's statistics threads do not exist, and the flag changes in the destructor alone.
    std::mutex stopLock;
    std::condition_variable stop;
    std::atomic<bool> stopping{false};
};

}  // namespace Quorvel

#endif  // QVAPI_LOGGER_STATE_H
