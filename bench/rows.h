#ifndef QUORVEL_BENCH_ROWS_H
#define QUORVEL_BENCH_ROWS_H

namespace bench {

/// Registers what one record costs beside its reference.
void addRecordRows();

/// Registers how long single calls take, with agents in good and bad health.
void addLatencyRows();

}  // namespace bench

#endif  // QUORVEL_BENCH_ROWS_H
