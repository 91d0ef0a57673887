#ifndef QUORVEL_DAMAGE_H
#define QUORVEL_DAMAGE_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace Quorvel {

/// The bytes of a file that are no record.
class Damage {
 public:
    /// Counts `length` bytes at `offset`; none do not count.
    void add(uint64_t offset, uint64_t length);
    /// Counts what lies behind all that was counted here.
    void add(const Damage& behind);

    uint64_t bytes() const { return m_bytes; }

    /// How many there are and where, for messages.
    std::string description() const;

 private:
    uint64_t m_bytes = 0;
    uint64_t m_places = 0;
    std::vector<std::pair<uint64_t, uint64_t>> m_firstPlaces;  // offset and length
};

}  // namespace Quorvel

#endif  // QUORVEL_DAMAGE_H
