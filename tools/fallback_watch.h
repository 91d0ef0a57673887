#ifndef QUORVEL_FALLBACK_WATCH_H
#define QUORVEL_FALLBACK_WATCH_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace Quorvel {

/// Looks whether the fallback file takes what the library turns over to it: the library cannot
/// tell. What other processes append at the same moment may pass for it.
class FallbackWatch {
 public:
    FallbackWatch();

    /// To be called after a request of `length` bytes was turned over.
    /// @return whether the file grew by its record.
    bool tookRequest(size_t length);

    /// Bytes by which the file grew for those requests.
    uint64_t growth() const { return m_growth; }

    /// Why the file takes nothing, as far as a look at it tells.
    static std::string obstacle();

 private:
    uint64_t m_size;
    uint64_t m_growth = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_FALLBACK_WATCH_H
