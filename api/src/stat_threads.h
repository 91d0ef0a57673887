#ifndef QVAPI_STAT_THREADS_H
#define QVAPI_STAT_THREADS_H

#include <pthread.h>

#include <mutex>

#include "fork_safety.h"

namespace Quorvel {

/// The statistics threads of all loggers of the process. Its lock covers probing, starting and
/// forgetting them, so that no id is probed once its thread may have been joined.
class StatThreads final : public ForkMember {
 public:
    using Routine = void* (*)(void*);

    /// Whether the most recently started thread of the process is gone, or there is none.
    bool gone();

    /// Starts a thread that runs `routine(logger)`, with all signals blocked.
    /// @return 0 or pthread_create(3)'s error number.
    int start(Routine routine, void* logger);

    /// The same, unless another logger has started a thread since the probe.
    int startIfGone(Routine routine, void* logger);

    /// Waits for the ends of the logger's threads, which it has told to end.
    void join(const void* logger);

    void lockForFork() override { m_mutex.lock(); }
    void unlockAfterFork() override { m_mutex.unlock(); }
    void renewInChild() override;

 private:
    struct Thread {
        pthread_t id;
        const void* logger;
        bool running;  ///< false in a child forked after the start
        Thread* older;
    };

    bool newestIsGone() const;
    int startLocked(Routine routine, void* logger);
    Thread* forget(const void* logger);

    std::mutex m_mutex;
    Thread* m_newest = nullptr;
};

extern StatThreads statThreads;

}  // namespace Quorvel

#endif  // QVAPI_STAT_THREADS_H
