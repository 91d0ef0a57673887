#ifndef QUORVEL_SPOOL_FILE_H
#define QUORVEL_SPOOL_FILE_H

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "spool_head.h"

namespace Quorvel {

/// Appends `request` to `output` as a record of the fallback file: its length in four bytes in
/// host order, and the request as it stands.
void appendSpoolRecord(std::string& output, std::string_view request);

/// Finds the whole records of a file in the fallback file's format, in constant memory and in a
/// time that grows with its size alone. The file may hold any bytes, and may grow or be cut
/// meanwhile.
///
/// A record is whole when its length and the header behind it agree in every field and it fits in
/// the file. Bytes that are no whole record are skipped: as far as a record reaches of which one
/// bit was flipped, and otherwise to the next whole record. A record that was cut short, with
/// others behind it, takes none of them with it.
class SpoolReader {
 public:
    /// @param fd a regular file, which stays the caller's and open.
    /// @param offset where to begin.
    explicit SpoolReader(int fd, uint64_t offset = 0);

    /// Moves on to the next whole record. Throws when the file cannot be read.
    /// @return false at the file's end, where a later call finds what was appended since, and,
    /// before it, when a stop was requested: then begin() and end() are where the search began.
    bool next() {
        // Mostly the head behind the last record was looked at, and the next one is at hand.
        if (m_lookedAt == m_end && m_headEnd != 0 && isInWindow(m_headEnd, kHeadSize) &&
            m_headEnd <= m_size) {
            SpoolHead& following = m_heads[m_currentHead];
            following.read(m_window.get() + (m_headEnd - m_windowBegin));
            const uint64_t followingEnd = following.endFrom(m_headEnd);
            if (followingEnd != 0) {
                m_currentHead ^= 1;
                m_begin = m_end;
                m_skipped = 0;
                m_end = m_lookedAt = m_headEnd;
                m_headEnd = followingEnd;
                return true;
            }
        }
        return findNext();
    }

    uint64_t begin() const { return m_begin; }      ///< where the record begins, or the file's end
    uint64_t end() const { return m_end; }          ///< where the record ends, or the file's end
    uint64_t skipped() const { return m_skipped; }  ///< bytes skipped just before begin()

    uint64_t size() const { return m_size; }  ///< of the file, as far as it is known

    /// The length of the record's request.
    size_t requestLength() const { return m_end - m_begin - sizeof(uint32_t); }

    /// The length and the header of the record, and its application's name.
    const SpoolHead& head() const { return m_heads[m_currentHead]; }
    std::string_view application() { return request(kPrefixLength, head().nameLength); }

    /// At most `length` bytes of the record's request from `offset` on; good until the next call.
    /// Fewer than the request has only when the file was cut meanwhile.
    std::string_view request(size_t offset, size_t length) {
        return bytes(m_begin + kLengthSize + offset, std::min(length, requestLength() - offset));
    }

    /// The file's bytes from `offset` on, at most `length`; good until the next call.
    std::string_view bytes(uint64_t offset, size_t length) {
        return isInWindow(offset, length)
                   ? std::string_view(m_window.get() + (offset - m_windowBegin), length)
                   : load(offset, length);
    }

 private:
    bool isInWindow(uint64_t offset, size_t length) const {
        return offset >= m_windowBegin && offset + length <= m_windowBegin + m_windowLength;
    }
    std::string_view load(uint64_t offset, size_t length);
    bool findNext();

    /// Where the record ends whose head is at `position`; 0 when none is there.
    uint64_t endAt(uint64_t position);
    /// Whether a head or the file's end is at `position`.
    bool isBoundary(uint64_t position);
    /// Where the whole record at `position` ends; 0 when none is there.
    uint64_t endOfRecord(uint64_t position);
    /// Whether the record at `begin` was cut short: others begin in it and lead over its end.
    bool holdsOthers(uint64_t begin, uint64_t end);
    /// Where the record at `position` ends that a flipped bit keeps from being one; 0 for none.
    uint64_t endOfFlipped(uint64_t position);

    /// Where to look for a record next when there is none at `position`.
    uint64_t findAfterDamage(uint64_t position);
    /// The first head from `position` on; `limit` when there is none before it.
    uint64_t findHead(uint64_t position, uint64_t limit);
    /// The first whole record from `position` on with a boundary behind it, or the file's end.
    uint64_t findFollowed(uint64_t position);

    const int m_fd;
    uint64_t m_size = 0;
    uint64_t m_begin;
    uint64_t m_end;
    uint64_t m_skipped = 0;
    SpoolHead m_heads[2];  // the record's, and what endAt() saw last
    unsigned int m_currentHead = 0;
    uint64_t m_lookedAt = UINT64_MAX;  // where endAt() looked last
    uint64_t m_headEnd = 0;            // and what it returned
    uint64_t m_lookedAhead = 0;        // how many bytes holdsOthers() went through
    std::unique_ptr<char[]> m_window;
    size_t m_windowCapacity = 0;
    uint64_t m_windowBegin = 0;
    size_t m_windowLength = 0;
};

}  // namespace Quorvel

#endif  // QUORVEL_SPOOL_FILE_H
