#ifndef QUORVEL_SPOOL_REPLAY_H
#define QUORVEL_SPOOL_REPLAY_H

#include <stdint.h>

#include <string>

#include "transport.h"

namespace Quorvel {

struct ReplayOptions {
    std::string file;
    Transport transport = Transport::kUnix;
    uint64_t recordsPerSecond = 0;  ///< 0: any number
    bool waitsForAgent = false;
};

/// Sends the requests of the file to the agent and removes it, and so on until there is none.
/// @return whether none is left; false when a stop was requested before.
/// Throws when the agent is gone, or on any other failure; what is left waits for the next replay.
bool replay(const ReplayOptions& options);

/// Says what replay() would send.
void describeReplay(const ReplayOptions& options);

}  // namespace Quorvel

#endif  // QUORVEL_SPOOL_REPLAY_H
