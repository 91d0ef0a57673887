#ifndef QUORVEL_PROGRESS_LINE_H
#define QUORVEL_PROGRESS_LINE_H

#include <stdint.h>

namespace Quorvel {

/// A bar on standard error that shows how far a verb has come; nothing unless that is a terminal.
class ProgressLine {
 public:
    ProgressLine();
    ~ProgressLine() { clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Begins a piece of work of which `part`, 0 to 1, is done already.
    void begin(double part);

    /// Draws the bar anew, a few times a second at most.
    /// @param part how much of the work is done, 0 to 1.
    void show(uint64_t records, uint64_t bytes, double part);

    /// Removes the bar.
    void clear();

 private:
    const bool m_isTerminal;
    const int64_t m_start;  // monotonicMilliseconds()
    int64_t m_nextDrawing;
    int64_t m_begun;  // when the piece of work was
    double m_partBefore = 0;
    bool m_isDrawn = false;
};

}  // namespace Quorvel

#endif  // QUORVEL_PROGRESS_LINE_H
