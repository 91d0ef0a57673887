#include "progress_line.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "monotonic_time.h"

namespace Quorvel {
namespace {

const int64_t kIntervalMilliseconds = 200;
const int kBarLength = 20;

}  // namespace

ProgressLine::ProgressLine()
    : m_isTerminal(isatty(STDERR_FILENO) == 1),
      m_start(monotonicMilliseconds()),
      m_nextDrawing(m_start + kIntervalMilliseconds),
      m_begun(m_start) {}

void ProgressLine::clear() {
    if (m_isDrawn) {
        fputs("\r\x1B[K", stderr);
        m_isDrawn = false;
    }
}

void ProgressLine::begin(double part) {
    m_begun = monotonicMilliseconds();
    m_partBefore = part;
}

void ProgressLine::show(uint64_t records, uint64_t bytes, double part) {
    if (!m_isTerminal || monotonicMilliseconds() < m_nextDrawing) {
        return;
    }
    const int64_t now = monotonicMilliseconds();
    const double seconds = static_cast<double>(now - m_start) / 1000;
    const double workSeconds = static_cast<double>(now - m_begun) / 1000;
    const double done = part - m_partBefore;
    const double left = done > 0 ? workSeconds * (1 - part) / done : 0;
    const int filled = static_cast<int>(kBarLength * std::min(part, 1.0));
    const std::string bar = std::string(filled, '#') + std::string(kBarLength - filled, '.');
    fprintf(stderr, "\r\x1B[K[%s] %.0f%%  %llu records  %.1f MB  %.0f records/s  %.0f s left",
            bar.c_str(), 100 * part, static_cast<unsigned long long>(records),
            static_cast<double>(bytes) / 1e6, static_cast<double>(records) / seconds, left);
    m_nextDrawing = monotonicMilliseconds() + kIntervalMilliseconds;
    m_isDrawn = true;
}

}  // namespace Quorvel
