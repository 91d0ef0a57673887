#include "stats_table.h"

#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "monotonic_time.h"
#include "text_safety.h"

namespace Quorvel {
namespace {

using Amount = Tally::Amount;

const int64_t kInterval = 1000;
const size_t kDefaultRows = 20;
const size_t kOtherLines = 4;  // the heading, the others, the total and the cursor's

size_t rowsThatFit() {
    winsize size{};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > kOtherLines;
    return isKnown ? size.ws_row - kOtherLines : kDefaultRows;
}

/// What came on top of `before`; all of it when the count began anew meanwhile.
Amount growth(const Amount& amount, const Amount& before) {
    if (amount.records < before.records || amount.bytes < before.bytes) {
        return amount;
    }
    return {amount.records - before.records, amount.bytes - before.bytes};
}

struct Line {
    std::string label;
    std::string type;
    Amount amount;
    Amount recent;
};

void print(const Line& line, double seconds, Output& output) {
    char text[256];
    const int length = snprintf(text, sizeof(text), "%-30.30s %4s %12.0f %14.0f %14.0f\n",
                                escapeForTerminal(line.label).c_str(), line.type.c_str(),
                                static_cast<double>(line.recent.records) / seconds,
                                static_cast<double>(line.recent.bytes) / seconds,
                                static_cast<double>(line.amount.records));
    output.append({text, static_cast<size_t>(length)});
}

}  // namespace

StatsTable::StatsTable()
    : m_isTerminal(isatty(STDOUT_FILENO) != 0), m_drawn(monotonicMilliseconds()) {}

int64_t StatsTable::millisecondsLeft() const {
    return std::max<int64_t>(m_drawn + kInterval - monotonicMilliseconds(), 0);
}

void StatsTable::draw(const Tally& tally, Output& output) {
    const int64_t now = monotonicMilliseconds();
    const double seconds = static_cast<double>(std::max<int64_t>(now - m_drawn, 1)) / 1000;
    m_drawn = now;

    std::map<Tally::Key, Amount> amounts;
    std::vector<Line> lines;
    for (const Tally::Row& row : tally.rows()) {
        lines.push_back({row.key->first, std::to_string(row.key->second), row.amount,
                         growth(row.amount, m_before[*row.key])});
        amounts[*row.key] = row.amount;
    }
    m_before = std::move(amounts);
    std::stable_sort(lines.begin(), lines.end(), [](const Line& left, const Line& right) {
        return left.recent.records > right.recent.records;
    });

    Line total = {"total", "", tally.total(), growth(tally.total(), m_totalBefore)};
    m_totalBefore = total.amount;
    Line others = {"others", "", total.amount, total.recent};
    output.append(m_isTerminal ? "\x1B[H\x1B[J" : "");
    output.append(
        "application                    type    records/s        bytes/s        records\n");
    const size_t shown = std::min(lines.size(), rowsThatFit());
    for (size_t i = 0; i < shown; ++i) {
        print(lines[i], seconds, output);
        others.amount = growth(others.amount, lines[i].amount);
        others.recent = growth(others.recent, lines[i].recent);
    }
    if (others.amount.records > 0) {
        print(others, seconds, output);
    }
    print(total, seconds, output);
    output.append(m_isTerminal ? "" : "\n");
    output.flush();
}

}  // namespace Quorvel
