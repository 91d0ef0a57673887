#ifndef QUORVEL_DAMAGE_H
#define QUORVEL_DAMAGE_H

#include <stdint.h>

#include <string>

namespace Quorvel {

/// The bytes of a file that are no record.
class Damage {
 public:
    /// Counts `length` bytes at `offset`; none do not count.
    void add(uint64_t offset, uint64_t length);

    uint64_t bytes() const { return m_bytes; }

    /// How many there are and where, for messages.
    std::string description() const;

 private:
    uint64_t m_bytes = 0;
    uint64_t m_places = 0;
    std::string m_firstPlaces;
};

}  // namespace Quorvel

#endif  // QUORVEL_DAMAGE_H
