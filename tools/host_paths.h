#ifndef QUORVEL_HOST_PATHS_H
#define QUORVEL_HOST_PATHS_H

#include <stdint.h>

namespace Quorvel {

/// Holds the agent's Unix-domain socket.
const char kAgentDirectory[] = "/data/container2host";

/// Holds the fallback file and the sampling table's marker.
const char kFallbackDirectory[] = "/data/qvagent";
const char kFallbackFile[] = "/data/qvagent/msgdat.dat";

/// A fallback file of more bytes takes no more records.
const uint64_t kMaxFallbackSize = 1000000000;

}  // namespace Quorvel

#endif  // QUORVEL_HOST_PATHS_H
