#include "spool_file.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "stop_signals.h"

namespace Quorvel {
namespace {

const size_t kWindowSize = 128 << 10;
const uint64_t kMaxLooksAhead = 16;  // at a byte, on average: more than damage alone causes

/// Leads out of the search for a record when a stop was requested.
struct SearchStopped {};

/// @return how many bytes there were, at least `length` unless the file ends before.
size_t readAt(int fd, uint64_t offset, char* bytes, size_t length, size_t capacity) {
    size_t done = 0;
    while (done < length) {
        const ssize_t size =
            pread(fd, bytes + done, capacity - done, static_cast<off_t>(offset + done));
        if (size == 0) {
            break;
        }
        if (size > 0) {
            done += static_cast<size_t>(size);
        } else if (errno != EINTR) {
            throw std::runtime_error(std::string("cannot read the file: ") + strerror(errno));
        }
    }
    return done;
}

uint64_t fileSize(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        throw std::runtime_error(std::string("cannot read the file: ") + strerror(errno));
    }
    return static_cast<uint64_t>(status.st_size);
}

}  // namespace

void appendSpoolRecord(std::string& output, std::string_view request) {
    const auto length = static_cast<uint32_t>(request.size());
    output.append(reinterpret_cast<const char*>(&length), sizeof(length));
    output.append(request);
}

SpoolReader::SpoolReader(int fd, uint64_t offset) : m_fd(fd), m_begin(offset), m_end(offset) {}

bool SpoolReader::findNext() {
    const uint64_t from = m_end;
    if (from >= m_size) {
        m_size = fileSize(m_fd);
    }
    uint64_t end = 0;
    try {
        for (m_begin = from; m_begin < m_size; m_begin = findAfterDamage(m_begin)) {
            end = endOfRecord(m_begin);
            if (end != 0) {
                break;
            }
        }
    } catch (const SearchStopped&) {
        m_begin = from;
    }
    m_end = std::max(m_begin, end);
    m_skipped = m_begin - from;
    const std::string_view head = bytes(m_begin, kHeadSize);
    m_heads[m_currentHead] = head.size() < kHeadSize ? SpoolHead() : SpoolHead(head.data());
    return end != 0;
}

std::string_view SpoolReader::load(uint64_t offset, size_t length) {
    const size_t capacity = std::max(length, kWindowSize);
    if (capacity > m_windowCapacity) {
        m_window.reset(new char[capacity]);
        m_windowCapacity = capacity;
    }
    m_windowBegin = offset;
    m_windowLength = readAt(m_fd, offset, m_window.get(), length, capacity);
    if (m_windowLength < length) {
        m_size = std::min(m_size, offset + m_windowLength);
    }
    return {m_window.get(), std::min(length, m_windowLength)};
}

uint64_t SpoolReader::endAt(uint64_t position) {
    if (position != m_lookedAt) {
        if (!isInWindow(position, kHeadSize) && stopRequested()) {
            throw SearchStopped();
        }
        const std::string_view head = bytes(position, kHeadSize);
        m_lookedAt = position;
        SpoolHead& seen = m_heads[m_currentHead ^ 1];
        seen = head.size() < kHeadSize ? SpoolHead() : SpoolHead(head.data());
        m_headEnd = seen.endFrom(position);
    }
    return m_headEnd;
}

bool SpoolReader::isBoundary(uint64_t position) {
    if (position + kHeadSize > m_size) {
        return position == m_size;
    }
    if (isInWindow(position, kHeadSize)) {
        return endAt(position) != 0;
    }
    char head[kHeadSize];  // leaves the window to the record that is before the boundary
    return readAt(m_fd, position, head, sizeof(head), sizeof(head)) == sizeof(head) &&
           SpoolHead(head).endFrom(position) != 0;
}

uint64_t SpoolReader::endOfRecord(uint64_t position) {
    const uint64_t end = endAt(position);
    const bool isWhole =
        end != 0 && end <= m_size && (isBoundary(end) || !holdsOthers(position, end));
    return isWhole ? end : 0;
}

bool SpoolReader::holdsOthers(uint64_t begin, uint64_t end) {
    if (m_lookedAhead / kMaxLooksAhead > m_size) {
        return true;  // like most answers so far: where no others are, a look ahead happens once
    }
    uint64_t position = findHead(begin + 1, end);
    uint64_t next = 0;
    while (position < end && (next = endAt(position)) <= end) {
        const bool leadsOn = next < end && isBoundary(next);
        position = leadsOn ? next : findHead(position + 1, end);
    }
    m_lookedAhead += position - begin;
    return position < end;
}

uint64_t SpoolReader::findAfterDamage(uint64_t position) {
    if (endAt(position) != 0) {
        return findFollowed(position + 1);
    }
    const uint64_t flippedEnd = endOfFlipped(position);
    return flippedEnd != 0 ? flippedEnd : findHead(position + 1, m_size);
}

uint64_t SpoolReader::endOfFlipped(uint64_t position) {
    const std::string_view bytes = this->bytes(position, kHeadSize);
    if (bytes.size() < kHeadSize) {
        return 0;
    }
    const SpoolHead head(bytes.data());
    uint64_t nearest = 0;
    for (const uint32_t length : head.announcedLengths()) {
        const uint64_t end = position + kLengthSize + length;
        if (head.nearlyAgreesOn(length) && isBoundary(end) && (nearest == 0 || end < nearest)) {
            nearest = end;
        }
    }
    return nearest;
}

uint64_t SpoolReader::findHead(uint64_t position, uint64_t limit) {
    while (position < limit && endAt(position) == 0) {
        ++position;
    }
    return std::min(position, limit);
}

uint64_t SpoolReader::findFollowed(uint64_t position) {
    for (;; ++position) {
        position = findHead(position, m_size);
        if (position >= m_size || isBoundary(endAt(position))) {
            return position;
        }
    }
}

}  // namespace Quorvel
