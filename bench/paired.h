#ifndef QUORVEL_BENCH_PAIRED_H
#define QUORVEL_BENCH_PAIRED_H

#include <functional>
#include <string>

namespace bench {

/// Makes `calls` calls of a contender on the thread with this index, 0 and up.
using Slice = std::function<void(int thread, int calls)>;

/// Two contenders that take turns. What they use lives as long as they do.
struct Pair {
    Slice reference;
    Slice subject;
    std::function<void()> settle;  ///< called between slices, outside the measurement
};

struct Row {
    std::string name;
    double limit;  ///< the ratio that the row should not pass; 0: shown for comparison
    int threads;
    int calls;  ///< a slice's calls on each thread
    std::function<Pair()> setUp;
};

/// Registers the row with Google Benchmark. Its counters are medians over the slices: CPU time and
/// elapsed time of a call in nanoseconds, and the ratios of neighbouring slices.
void addRow(Row row);

}  // namespace bench

#endif  // QUORVEL_BENCH_PAIRED_H
