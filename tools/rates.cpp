#include <errno.h>
#include <pwd.h>
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>

#include "command_line.h"
#include "log_types.h"
#include "rates_view.h"
#include "record_printer.h"
#include "sampling_table.h"
#include "text_safety.h"
#include "verbs.h"

namespace Quorvel {
namespace {

const size_t kMaxNameLength = sizeof(AppItem::appname) - 1;

struct ShowOptions {
    bool json = false;
    bool all = false;
};

struct SetOptions {
    std::string name;
    LogTypes types;
    int rate;
};

void warnOfMissingMarker() {
    if (!hasSamplingMarker()) {
        std::cerr << "qvctl: " << kSamplingMarker
                  << " is missing: applications look for their rates a minute after their start; "
                     "the agent makes it, or \"qvctl rates create\"\n";
    }
}

void sayThatItWaits() {
    std::cerr << "qvctl: waiting until no other process has " << kSamplingLock << " locked\n";
}

std::string userName(uid_t uid) {
    const passwd* const entry = getpwuid(uid);
    return entry != nullptr ? escapeForTerminal(entry->pw_name) : "an unknown user";
}

void printSegment(const shmid_ds& status, size_t applications, Output& output) {
    const ipc_perm& owner = status.shm_perm;
    char mode[sizeof("0777")];
    snprintf(mode, sizeof(mode), "%04o", owner.mode & 0777U);
    output.append("table: shared memory of " + std::to_string(status.shm_segsz) + " bytes, mode " +
                  mode + ", created by process " + std::to_string(status.shm_cpid) + " of " +
                  userName(owner.cuid) + " (uid " + std::to_string(owner.cuid) + ")\n");
    if (hasSamplingMarker()) {
        output.append(std::string("marker: ") + kSamplingMarker + '\n');
    }
    output.append("applications: " + std::to_string(applications) + " of " +
                  std::to_string(kSamplingSlots) + '\n');
}

void show(const ShowOptions& options) {
    const SamplingSegment segment(SamplingSegment::Access::kRead);
    const std::vector<AppItem> slots = usedSlots(segment.table());
    Output output;
    if (!options.json) {
        printSegment(segment.status(), slots.size(), output);
    }
    const bool onlyAscii = recordStyle(true) == RecordStyle::kAsciiJson;
    for (const AppItem& slot : slots) {
        if (options.json) {
            printJsonRates(slot, options.all, onlyAscii, output);
        } else {
            printReadableRates(slot, output);
        }
    }
    output.flush();
    warnOfMissingMarker();
}

/// Makes one change of the table and shows what the application's slot holds then.
template <typename Change>
void change(const Change& make) {
    const SamplingWriterLock lock(sayThatItWaits);
    const SamplingSegment segment(SamplingSegment::Access::kChange);
    Output output;
    printReadableRates(make(segment.table()), output);
    output.flush();
    warnOfMissingMarker();
}

void create() {
    const SamplingWriterLock lock(sayThatItWaits);
    std::cout << (createSamplingSegment() ? "created the table\n" : "the table is there\n");
    const SamplingSegment usable(SamplingSegment::Access::kChange);
    std::cout << (createSamplingMarker() ? "created " : "there is ") << kSamplingMarker << '\n';
}

void addName(CLI::App& verb, std::string& name) {
    verb.add_option("NAME", name, "The application's name, 1 to 255 bytes")
        ->type_name("")
        ->required()
        ->transform(unprotect)
        ->check([](const std::string& value) {
            const bool fits = !value.empty() && value.size() <= kMaxNameLength;
            return fits ? ""
                        : "a name has 1 to " + std::to_string(kMaxNameLength) + " bytes, not " +
                              std::to_string(value.size());
        });
}

void addSetVerb(CLI::App& rates) {
    const auto options = std::make_shared<SetOptions>();
    CLI::App* verb = rates.add_subcommand("set", "Publish a rate for an application's log types.");
    verb->footer(
        "A running application follows at its next record; one that had no slot finds its own\n"
        "within a minute. An agent that keeps the table itself may change the rate back.\n"
        "Example: qvctl rates set checkout 5-9 10\n"
        "Exit status: 0 published, 1 not (the table is as it was), 2 wrong usage.");
    addName(*verb, options->name);
    verb->add_option_function<std::string>(
            "TYPE",
            [options](const std::string& text) { options->types = parseLogTypes("TYPE", text); },
            "Log types: a number of 0 to 127, a range like 5-9, or all")
        ->type_name("")
        ->required();
    addNumber(*verb, "RATE", options->rate, 0, 255,
              "0 or 1: keep every record; 2 to 254: keep one in so many; 255: drop all")
        ->type_name("")
        ->required();
    verb->callback([options] {
        change([&options](AppItem* table) {
            return setRates(table, options->name, options->types,
                            static_cast<uint8_t>(options->rate));
        });
    });
}

void addClearVerb(CLI::App& rates) {
    const auto name = std::make_shared<std::string>();
    CLI::App* verb = rates.add_subcommand("clear", "Set all rates of an application to 1.");
    verb->footer(
        "The application keeps its slot in the table, where it may be reading.\n"
        "Example: qvctl rates clear checkout\n"
        "Exit status: 0 cleared, 1 not (the table is as it was), 2 wrong usage.");
    addName(*verb, *name);
    verb->callback(
        [name] { change([&name](AppItem* table) { return clearRates(table, *name); }); });
}

void addCreateVerb(CLI::App& rates) {
    CLI::App* verb = rates.add_subcommand(
        "create", "Create the table and its marker file on a machine without an agent.");
    verb->footer(
        "What is there already stays as it is. The table is shared memory and is gone after the\n"
        "next boot.\n"
        "Example: qvctl setup && qvctl rates create\n"
        "Exit status: 0 both are there, 1 not, 2 wrong usage.");
    verb->callback(create);
}

}  // namespace

void addRatesVerb(CLI::App& program, int& status) {
    const auto options = std::make_shared<ShowOptions>();
    CLI::App* verb = program.add_subcommand(
        "rates", "Show or change the sampling rates that applications follow.");
    verb->footer(
        "Without a further word, shows the table: for each application its log types, in ranges\n"
        "that share a rate.\n"
        "Example: qvctl rates\n"
        "Exit status: 0 shown, 1 no table, or not readable, 2 wrong usage.");
    CLI::Option* json =
        verb->add_flag("--json", options->json, "Print a JSON object for each rate above 1");
    verb->add_flag("--all", options->all, "With --json, print the rates of 0 and 1 as well")
        ->needs(json);
    addSetVerb(*verb);
    addClearVerb(*verb);
    addCreateVerb(*verb);
    verb->callback([options, verb, &status] {
        if (verb->get_subcommands().empty()) {
            show(*options);
        }
        status = 0;
    });
}

}  // namespace Quorvel
