#include "record_filter.h"

#include <time.h>

#include <CLI/CLI.hpp>
#include <charconv>

#include "verbs.h"

namespace Quorvel {
namespace {

const size_t kYearDigits = 4;

/// Whether the date, which mktime() would carry over into the next month, is in its month.
bool isInCalendar(const tm& parts) {
    tm day{};
    day.tm_year = parts.tm_year;
    day.tm_mon = parts.tm_mon;
    day.tm_mday = parts.tm_mday;
    timegm(&day);
    return day.tm_mon == parts.tm_mon;
}

/// Whether `value` has digits only or begins with a year of four.
bool hasWholeYear(const std::string& value) {
    const size_t digits = value.find_first_not_of("0123456789");
    return digits == std::string::npos || digits == kYearDigits;
}

int64_t parseTime(const std::string& option, const std::string& value) {
    for (const char* const form : {"%s", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M",
                                   "%Y-%m-%dT%H:%M", "%Y-%m-%d %H", "%Y-%m-%dT%H", "%Y-%m-%d"}) {
        tm parts{};
        parts.tm_isdst = -1;
        const char* const end = strptime(value.c_str(), form, &parts);
        if (end != nullptr && *end == '\0' && isInCalendar(parts) && hasWholeYear(value)) {
            return mktime(&parts);
        }
    }
    throw CLI::ValidationError(option,
                               "neither seconds since the epoch nor a local date and time like "
                               "\"2026-01-31 17:05:00\": " +
                                   value);
}

/// Adds an option whose value `parse` turns into `value`.
template <typename Value>
void addParsed(CLI::App& verb, const std::string& option, const std::string& type,
               const std::string& help, Value& value,
               Value (*parse)(const std::string& option, const std::string& value)) {
    verb.add_option_function<std::string>(
            option,
            [&value, option, parse](const std::string& text) { value = parse(option, text); }, help)
        ->type_name(type);
}

}  // namespace

bool RecordFilter::matches(const RequestView& request) const {
    return request.logType >= types.first && request.logType <= types.last &&
           request.timestamp >= since && request.timestamp <= until &&
           (!application || request.application == *application) &&
           request.body.find(text) != std::string_view::npos;
}

void addFilterOptions(CLI::App& verb, RecordFilter& filter) {
    verb.add_option("--app", filter.application, "Only records of this application")
        ->type_name("NAME")
        ->transform(unprotect);
    addParsed(verb, "--type", "N or N-M", "Only records of these log types", filter.types,
              parseLogTypes);
    addParsed(verb, "--since", "T",
              "Only records from then on: seconds since the epoch, or a local time like "
              "\"2026-01-31 17:05:00\", of which the date is enough",
              filter.since, parseTime);
    addParsed(verb, "--until", "T", "Only records until then", filter.until, parseTime);
    verb.add_option("--grep", filter.text, "Only records whose body holds this text")
        ->type_name("TEXT")
        ->transform(unprotect);
}

}  // namespace Quorvel
