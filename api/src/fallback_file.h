#ifndef QVAPI_FALLBACK_FILE_H
#define QVAPI_FALLBACK_FILE_H

#include <stdint.h>

namespace Quorvel {

/// Appends the request, behind its length in host order, to the fallback file
/// "/data/qvagent/msgdat.dat", in one write. Never blocks on what stands in the file's place, and
/// raises no signal. Whether the append worked is not reported.
/// @return false when the file is over 1,000,000,000 bytes and takes no more records.
bool storeInFallbackFile(const char* request, uint32_t length);

}  // namespace Quorvel

#endif  // QVAPI_FALLBACK_FILE_H
