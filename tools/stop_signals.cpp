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

void requestStop(int) {
    requestTime = monotonicMilliseconds();
    const itimerspec interval = {kInterruptInterval, kInterruptInterval};
    timer_settime(interruptTimer, 0, &interval, nullptr);
}

void handle(int signal, void (*handler)(int), unsigned int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(flags);
    sigaction(signal, &action, nullptr);
}

}  // namespace

void catchStopSignals() {
    timer_create(CLOCK_MONOTONIC, nullptr, &interruptTimer);  // which sends SIGALRM
    handle(
        SIGALRM, [](int) {}, 0);
    handle(SIGINT, requestStop, SA_RESETHAND);
    handle(SIGTERM, requestStop, SA_RESETHAND);
}

bool stopRequested() { return requestTime != 0; }

bool stopIsOverdue() {
    return stopRequested() && monotonicMilliseconds() - requestTime > kMaxStopMilliseconds;
}

}  // namespace Quorvel
