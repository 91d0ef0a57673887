#include "stat_threads.h"

#include <errno.h>
#include <signal.h>

#include <memory>

#include "locks.h"

namespace {

const pthread_t kNoThread = ~pthread_t{0};

}  // namespace

// Exported for dlsym(3) and for existing binaries that load them; an application may own both
// names, so the library itself uses neither: `buff` is unused, and `stat_pid` is another name of
// statPid. A program that declares one may see a copy that never changes.
char buff[32767];
extern "C" __attribute__((visibility("hidden"))) pthread_t statPid;
pthread_t statPid = kNoThread;
extern pthread_t stat_pid __attribute__((alias("statPid"), visibility("default")));

namespace Quorvel {
namespace {

__attribute__((constructor)) void enrolStatThreads() { enrol(statThreads, nullptr); }

}  // namespace

StatThreads statThreads;

bool StatThreads::gone() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return newestIsGone();
}

int StatThreads::start(Routine routine, void* logger) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return startLocked(routine, logger);
}

int StatThreads::startIfGone(Routine routine, void* logger) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return newestIsGone() ? startLocked(routine, logger) : 0;
}

void StatThreads::join(const void* logger) {
    while (Thread* const forgotten = forget(logger)) {
        const std::unique_ptr<Thread> thread(forgotten);
        if (thread->running) {
            pthread_join(thread->id, nullptr);
        }
    }
}

void StatThreads::renewInChild() {
    makeAnew(m_mutex);
    statPid = kNoThread;
    for (Thread* thread = m_newest; thread != nullptr; thread = thread->older) {
        thread->running = false;
    }
}

bool StatThreads::newestIsGone() const {
    return statPid == kNoThread || pthread_kill(statPid, 0) == ESRCH;
}

// The thread inherits a mask that keeps the application's signal handlers off it.
int StatThreads::startLocked(Routine routine, void* logger) {
    auto thread = std::make_unique<Thread>();
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    const int res = pthread_create(&thread->id, nullptr, routine, logger);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    if (res == 0) {
        statPid = thread->id;
        thread->logger = logger;
        thread->running = true;
        thread->older = m_newest;
        m_newest = thread.release();
    }
    return res;
}

// Takes one of the logger's threads off the list. @return null when it has none.
StatThreads::Thread* StatThreads::forget(const void* logger) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    Thread** link = &m_newest;
    while (*link != nullptr && (*link)->logger != logger) {
        link = &(*link)->older;
    }
    Thread* const forgotten = *link;
    if (forgotten != nullptr) {
        *link = forgotten->older;
    }
    const Thread* newest = m_newest;
    while (newest != nullptr && !newest->running) {
        newest = newest->older;
    }
    statPid = newest != nullptr ? newest->id : kNoThread;
    return forgotten;
}

}  // namespace Quorvel
