#include "spool_info.h"

#include <sys/stat.h>

#include <algorithm>
#include <future>

#include "json_writer.h"
#include "local_time.h"
#include "spool_file.h"
#include "text_safety.h"

namespace Quorvel {
namespace {

std::string describe(const Tally::Amount& amount) {
    return std::to_string(amount.records) + " records, " + std::to_string(amount.bytes) + " bytes";
}

}  // namespace

// A record that is found from the middle on may be one that another holds in its body: what is
// behind it counts only where the records from the beginning on lead to it.
SpoolInfo::SpoolInfo(int fd) {
    struct stat status {};
    fstat(fd, &status);
    SpoolReader middle(fd, static_cast<uint64_t>(status.st_size) / 2);
    middle.next();
    const uint64_t meeting = middle.begin();
    SpoolInfo behind;
    auto counted = std::async(std::launch::async, [&] { behind.count(fd, meeting, UINT64_MAX); });
    if (count(fd, 0, meeting)) {
        counted.get();
        add(behind);
    }
}

bool SpoolInfo::count(int fd, uint64_t begin, uint64_t end) {
    SpoolReader reader(fd, begin);
    while (reader.next()) {
        if (reader.skipped() > 0) {
            m_damage.add(reader.begin() - reader.skipped(), reader.skipped());
        }
        if (reader.begin() == end) {
            return true;
        }
        const SpoolHead& head = reader.head();
        const size_t bodyLength = reader.requestLength() - kPrefixLength - head.nameLength;
        m_tally.add(reader.application(), head.logType(), bodyLength);
        m_oldest = std::min(m_oldest, head.timestamp());
        m_newest = std::max(m_newest, head.timestamp());
    }
    m_damage.add(reader.begin() - reader.skipped(), reader.skipped());
    m_bytes = reader.begin();
    return false;
}

void SpoolInfo::add(const SpoolInfo& behind) {
    m_bytes = behind.m_bytes;
    m_tally.add(behind.m_tally);
    m_damage.add(behind.m_damage);
    m_oldest = std::min(m_oldest, behind.m_oldest);
    m_newest = std::max(m_newest, behind.m_newest);
}

void SpoolInfo::printReadable(const std::string& path, Output& output) const {
    const auto line = [&output](const std::string& name, const std::string& value) {
        output.append(name + ": " + value + '\n');
    };
    line("file", escapeForTerminal(path));
    line("size", std::to_string(m_bytes) + " bytes");
    line("records", std::to_string(m_tally.total().records));
    if (m_tally.total().records > 0) {
        line("oldest", localTime(m_oldest));
        line("newest", localTime(m_newest));
    }
    if (m_damage.bytes() > 0) {
        line("damage", m_damage.description());
    }
    for (const Tally::Row& row : m_tally.rows()) {
        line(escapeForTerminal(row.key->first) + " type " + std::to_string(row.key->second),
             describe(row.amount));
    }
    if (m_tally.others().records > 0) {
        line("all others", describe(m_tally.others()));
    }
}

void SpoolInfo::printJson(Output& output) const {
    const bool isEmpty = m_tally.total().records == 0;
    JsonStream stream(output);
    JsonWriter<rapidjson::ASCII<>> writer;
    writer.Reset(stream);
    const auto count = [&writer](const Tally::Amount& amount) {
        writer.number("records", amount.records);
        writer.number("bytes", amount.bytes);
    };
    writer.StartObject();
    writer.number("bytes", m_bytes);
    writer.number("records", m_tally.total().records);
    writer.number("skippedBytes", m_damage.bytes());
    for (const auto& [key, timestamp] : {std::pair("oldest", m_oldest), {"newest", m_newest}}) {
        writer.raw(key);
        isEmpty ? writer.Null() : writer.Uint(timestamp);
    }
    writer.raw("applications");
    writer.StartArray();
    for (const Tally::Row& row : m_tally.rows()) {
        writer.StartObject();
        writer.bytes("application", "applicationEncoding", row.key->first);
        writer.number("logType", row.key->second);
        count(row.amount);
        writer.EndObject();
    }
    writer.EndArray();
    if (m_tally.others().records > 0) {
        writer.raw("others");
        writer.StartObject();
        count(m_tally.others());
        writer.EndObject();
    }
    writer.EndObject();
    output.put('\n');
}

}  // namespace Quorvel
