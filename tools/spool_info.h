#ifndef QUORVEL_SPOOL_INFO_H
#define QUORVEL_SPOOL_INFO_H

#include <stdint.h>

#include "damage.h"
#include "output.h"
#include "tally.h"

namespace Quorvel {

/// What a file in the fallback file's format holds. Two threads look at a half each.
class SpoolInfo {
 public:
    /// @param fd a regular file.
    explicit SpoolInfo(int fd);

    void printReadable(const std::string& path, Output& output) const;
    void printJson(Output& output) const;

 private:
    SpoolInfo() = default;

    /// Counts what is in a file from `begin` on, up to the file's end or a record at `end`.
    /// @return whether one begins there.
    bool count(int fd, uint64_t begin, uint64_t end);
    /// Counts what lies behind all that was counted here.
    void add(const SpoolInfo& behind);

    uint64_t m_bytes = 0;
    Tally m_tally;
    Damage m_damage;
    uint32_t m_oldest = UINT32_MAX;
    uint32_t m_newest = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_SPOOL_INFO_H
