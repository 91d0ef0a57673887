#ifndef QUORVEL_SPOOL_INFO_H
#define QUORVEL_SPOOL_INFO_H

#include <stdint.h>

#include "damage.h"
#include "output.h"
#include "tally.h"

namespace Quorvel {

/// What a file in the fallback file's format holds.
class SpoolInfo {
 public:
    /// @param fd a regular file.
    explicit SpoolInfo(int fd);

    void printReadable(const std::string& path, Output& output) const;
    void printJson(Output& output) const;

 private:
    uint64_t m_bytes;
    Tally m_tally;
    Damage m_damage;
    uint32_t m_oldest = UINT32_MAX;
    uint32_t m_newest = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_SPOOL_INFO_H
