#include "stat_threads.h"

#include <errno.h>
#include <signal.h>

#include <memory>
#include <new>

#include "qvapi_cpp.h"

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

bool StatThreads::gone() const { return statPid == kNoThread || pthread_kill(statPid, 0) == ESRCH; }

void StatThreads::renewInChild() {
    new (&mutex) std::mutex;
    statPid = kNoThread;
    for (Thread* thread = m_newest; thread != nullptr; thread = thread->older) {
        thread->running = false;
    }
}

// The thread inherits a mask that keeps the application's signal handlers off it.
int StatThreads::start(CLogger* logger) {
    auto thread = std::make_unique<Thread>();
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    const int res = pthread_create(&thread->id, nullptr, StartStatThreads, logger);
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

StatThreads::Thread* StatThreads::forget(const CLogger* logger) {
    Thread* forgotten = nullptr;
    bool named = false;
    for (Thread** link = &m_newest; *link != nullptr;) {
        Thread* const thread = *link;
        if (thread->logger != logger) {
            link = &thread->older;
            continue;
        }
        *link = thread->older;
        thread->older = forgotten;
        forgotten = thread;
        named = named || (thread->running && pthread_equal(thread->id, statPid) != 0);
    }
    if (named) {
        const Thread* newest = m_newest;
        while (newest != nullptr && !newest->running) {
            newest = newest->older;
        }
        statPid = newest != nullptr ? newest->id : kNoThread;
    }
    return forgotten;
}

}  // namespace Quorvel
