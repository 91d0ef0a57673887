#ifndef QUORVEL_RECORD_FILTER_H
#define QUORVEL_RECORD_FILTER_H

#include <stdint.h>

#include <CLI/App.hpp>
#include <optional>
#include <string>

#include "log_types.h"
#include "request_decoder.h"

namespace Quorvel {

/// Which records a verb prints: those that meet every condition given.
struct RecordFilter {
    std::optional<std::string> application;
    LogTypes types;
    int64_t since = 0;           ///< the earliest time stamp, in seconds since the epoch
    int64_t until = UINT32_MAX;  ///< the latest
    std::string text;            ///< in the body

    bool matches(const RequestView& request) const;
};

/// Adds the options --app, --type, --since, --until and --grep, which set `filter`.
void addFilterOptions(CLI::App& verb, RecordFilter& filter);

}  // namespace Quorvel

#endif  // QUORVEL_RECORD_FILTER_H
