#ifndef QUORVEL_STATS_TABLE_H
#define QUORVEL_STATS_TABLE_H

#include <stdint.h>

#include <map>

#include "output.h"
#include "tally.h"

namespace Quorvel {

/// Shows records and bytes a second by application and log type, since it was drawn last. On a
/// terminal each drawing takes the place of the one before.
class StatsTable {
 public:
    StatsTable();

    void draw(const Tally& tally, Output& output);

    /// @return how long until the next drawing is due.
    int64_t millisecondsLeft() const;

 private:
    const bool m_isTerminal;
    int64_t m_drawn;  // when, in milliseconds
    std::map<Tally::Key, Tally::Amount> m_before;
    Tally::Amount m_totalBefore;
};

}  // namespace Quorvel

#endif  // QUORVEL_STATS_TABLE_H
