#include "tally.h"

#include <algorithm>

namespace Quorvel {
namespace {

const size_t kMaxEntries = 1000;
const size_t kMaxNameLength = 255;

size_t hash(std::string_view name, size_t logType) {
    const size_t ends =
        name.empty() ? 0
                     : static_cast<uint8_t>(name.front()) + 7UL * static_cast<uint8_t>(name.back());
    return ends + 13 * name.size() + 31 * logType;
}

/// Names are short, and calling memcmp(3) costs more than comparing them.
bool isSame(std::string_view left, std::string_view right) {
    size_t i = 0;
    while (i < left.size() && i < right.size() && left[i] == right[i]) {
        ++i;
    }
    return i == left.size() && i == right.size();
}

}  // namespace

void Tally::Amount::add(const Amount& other) {
    records += other.records;
    bytes += other.bytes;
}

void Tally::add(std::string_view application, uint8_t logType, uint64_t bytes) {
    Amounts::iterator& recent = m_recent[hash(application, logType) % m_recent.size()];
    if (recent == m_amounts.end() || recent->first.second != logType ||
        !isSame(recent->first.first, application)) {
        recent = entry(application, logType);
    }
    for (Amount* const amount : {&m_total, &recent->second}) {
        ++amount->records;
        amount->bytes += bytes;
    }
}

void Tally::add(const Tally& other) {
    for (const auto& [key, amount] : other.m_amounts) {
        entry(key.first, key.second)->second.add(amount);
    }
    m_total.add(other.m_total);
    m_others.add(other.m_others);
}

std::vector<Tally::Row> Tally::rows() const {
    std::vector<Row> rows;
    for (const auto& [key, amount] : m_amounts) {
        rows.push_back({&key, amount});
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Row& left, const Row& right) {
        return left.amount.records > right.amount.records;
    });
    return rows;
}

Tally::Amounts::iterator Tally::entry(std::string_view name, uint8_t logType) {
    std::string shortened;
    if (name.size() > kMaxNameLength) {
        shortened = std::string(name.substr(0, kMaxNameLength)) + "...";
        name = shortened;
    }
    const auto found = m_amounts.find(std::pair(name, logType));
    if (found != m_amounts.end()) {
        return found;
    }
    if (m_amounts.size() == kMaxEntries) {
        dropSmallest();
    }
    return m_amounts.emplace(Key(name, logType), Amount()).first;
}

// Half of them at once, so that the cost for each record stays small.
void Tally::dropSmallest() {
    std::vector<Row> all = rows();
    for (auto row = all.begin() + kMaxEntries / 2; row != all.end(); ++row) {
        m_others.add(row->amount);
        m_amounts.erase(m_amounts.find(*row->key));
    }
    m_recent.fill(m_amounts.end());
}

}  // namespace Quorvel
