#ifndef QUORVEL_STOP_SIGNALS_H
#define QUORVEL_STOP_SIGNALS_H

namespace Quorvel {

/// From here on the first SIGINT or SIGTERM only requests the program's stop; the second ends it.
/// A system call that blocks when the first arrives, or later, ends with EINTR again and again, so
/// a look at stopRequested() before each and after each EINTR misses no request.
void catchStopSignals();

bool stopRequested();

/// Whether the stop was requested so long ago that the program has to end.
bool stopIsOverdue();

}  // namespace Quorvel

#endif  // QUORVEL_STOP_SIGNALS_H
