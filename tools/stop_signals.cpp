#include "stop_signals.h"

#include <signal.h>
#include <stdint.h>
#include <time.h>

#include <atomic>

#include "monotonic_time.h"

namespace Quorvel {
namespace {

const int64_t kMaxStopMilliseconds = 700;
const timespec kInterruptInterval = {0, 20000000};

std::atomic<int64_t> requestTime{0};  // 0: not requested
static_assert(std::atomic<int64_t>::is_always_lock_free, "a signal handler writes it");
timer_t interruptTimer;

void handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaction(signal, &action, nullptr);
}

void requestStop(int) {
    handle(SIGINT, SIG_DFL);
    handle(SIGTERM, SIG_DFL);
    requestTime = monotonicMilliseconds();
    const itimerspec interval = {kInterruptInterval, kInterruptInterval};
    timer_settime(interruptTimer, 0, &interval, nullptr);
}

}  // namespace

void catchStopSignals() {
    timer_create(CLOCK_MONOTONIC, nullptr, &interruptTimer);  // which sends SIGALRM
    handle(SIGALRM, [](int) {});
    handle(SIGINT, requestStop);
    handle(SIGTERM, requestStop);
}

bool stopRequested() { return requestTime != 0; }

bool stopIsOverdue() {
    return stopRequested() && monotonicMilliseconds() - requestTime > kMaxStopMilliseconds;
}

}  // namespace Quorvel
