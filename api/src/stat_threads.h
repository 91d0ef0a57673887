#ifndef QVAPI_STAT_THREADS_H
#define QVAPI_STAT_THREADS_H

#include <pthread.h>

#include <mutex>

#include "fork_safety.h"

namespace Quorvel {

class CLogger;

/// The statistics threads of all loggers, the most recently started first. The lock covers probing,
/// starting and forgetting them, so that no id is probed once its thread may have been joined.
class StatThreads final : public ForkMember {
 public:
    struct Thread {
        pthread_t id;
        const CLogger* logger;
        bool running;  ///< false in a child forked after the start
        Thread* older;
    };

    std::mutex mutex;

    /// Whether the most recently started thread of the process is gone, or there is none.
    bool gone() const;
    /// @return 0 or pthread_create(3)'s error number.
    int start(CLogger* logger);
    /// Takes the logger's threads off the list and hands them over, to be joined and deleted.
    Thread* forget(const CLogger* logger);

    void lockForFork() override { mutex.lock(); }
    void unlockAfterFork() override { mutex.unlock(); }
    void renewInChild() override;

 private:
    Thread* m_newest = nullptr;
};

extern StatThreads statThreads;

}  // namespace Quorvel

#endif  // QVAPI_STAT_THREADS_H
