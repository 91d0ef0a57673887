#ifndef QUORVEL_DELIVERIES_H
#define QUORVEL_DELIVERIES_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "fallback_watch.h"

namespace Quorvel {

/// What became of the records that a verb wrote through the library.
class Deliveries {
 public:
    /// @param code the library's result, @param error its text; a loss is told on standard error.
    /// @param textLength of the record's name and body together.
    void add(int code, const std::string& error, size_t textLength);

    bool allAccepted() const { return m_accepted == m_records; }
    uint64_t records() const { return m_records; }
    uint64_t bytes() const { return m_bytes; }  ///< of the names and bodies

    /// Prints the counts, and what the fallback file shows if it was used.
    void report() const;

 private:
    FallbackWatch m_watch;
    uint64_t m_records = 0;
    uint64_t m_bytes = 0;
    uint64_t m_accepted = 0;
    uint64_t m_kept = 0;  // turned over to the fallback file, which grew
    uint64_t m_gone = 0;  // turned over, but the file is full or did not grow
};

}  // namespace Quorvel

#endif  // QUORVEL_DELIVERIES_H
