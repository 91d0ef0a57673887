#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "command_line.h"
#include "damage.h"
#include "descriptor.h"
#include "host_paths.h"
#include "output.h"
#include "record_filter.h"
#include "record_printer.h"
#include "replay_queue.h"
#include "spool_file.h"
#include "spool_info.h"
#include "spool_replay.h"
#include "stop_signals.h"
#include "text_safety.h"
#include "verbs.h"

namespace Quorvel {
namespace {

Descriptor openFile(const std::string& path) {
    Descriptor fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (fd.get() < 0 || fstat(fd.get(), &status) != 0) {
        throw std::runtime_error("cannot open " + path + ": " + strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error(path + " is no regular file");
    }
    return fd;
}

void addFileArgument(CLI::App& verb, std::string& file) {
    file = kFallbackFile;
    verb.add_option("FILE", file, "The file; the fallback file by default")
        ->type_name("")
        ->transform(unprotect)
        ->capture_default_str();
}

struct InfoOptions {
    std::string file;
    bool json = false;
};

std::string describeLeftOvers(const std::string& file) {
    std::string lines;
    for (const ReplayQueue::LeftOver& left : ReplayQueue::leftOvers(file)) {
        lines += "beside it: " + escapeForTerminal(left.path) + ": " + std::to_string(left.size) +
                 " bytes, " + left.what + '\n';
    }
    return lines;
}

void printInfo(const InfoOptions& options) {
    const std::string leftOvers = options.json ? "" : describeLeftOvers(options.file);
    Output output;
    if (!leftOvers.empty() && access(options.file.c_str(), F_OK) != 0 && errno == ENOENT) {
        output.append("file: " + escapeForTerminal(options.file) + ": there is none\n");
    } else {
        const Descriptor fd = openFile(options.file);
        const SpoolInfo info(fd.get());
        options.json ? info.printJson(output) : info.printReadable(options.file, output);
    }
    output.append(leftOvers);
    output.flush();
}

void addInfoVerb(CLI::App& spool) {
    const auto options = std::make_shared<InfoOptions>();
    CLI::App* verb = spool.add_subcommand("info", "Say what a file holds.");
    verb->footer(
        "Shows the file's size, its records by application and log type, the oldest and newest\n"
        "time stamp, what is no record, and what replays left beside it, be it there or not.\n"
        "Example: qvctl spool info\n"
        "Exit status: 0 shown, 1 the file cannot be read, 2 wrong usage.");
    addFileArgument(*verb, options->file);
    verb->add_flag("--json", options->json, "Print a JSON object of the file alone");
    verb->callback([options] { printInfo(*options); });
}

struct CatOptions {
    std::string file;
    bool json = false;
    RecordFilter filter;
};

/// @return whether every record could be looked at.
bool printRecords(const CatOptions& options) {
    catchStopSignals();
    const Descriptor fd = openFile(options.file);
    const auto printer = makeRecordPrinter(recordStyle(options.json));
    Output output;
    SpoolReader reader(fd.get());
    Damage damage;
    bool isComplete = true;
    while (!stopRequested() && reader.next()) {
        damage.add(reader.begin() - reader.skipped(), reader.skipped());
        RequestView request;
        std::string error;
        if (!decodeRequest(reader.request(0, kPrefixLength + kMaxBodyLength), request, error)) {
            std::cerr << "qvctl: record at byte " << reader.begin() << ": " << error << '\n';
            isComplete = false;
        } else if (options.filter.matches(request)) {
            printer->print(request, std::nullopt, output);
        }
    }
    output.flush();
    damage.add(reader.begin() - reader.skipped(), reader.skipped());
    if (damage.bytes() > 0) {
        std::cerr << "qvctl: skipped " << damage.description() << '\n';
    }
    return isComplete && !stopRequested();
}

void addCatVerb(CLI::App& spool, int& status) {
    const auto options = std::make_shared<CatOptions>();
    CLI::App* verb = spool.add_subcommand("cat", "Print the records of a file.");
    verb->footer(
        "Prints a line per record as listen does, without a transport. What is no record is\n"
        "skipped, with a message on standard error.\n"
        "Example: qvctl spool cat --app checkout --since '2026-01-31 17:00'\n"
        "Exit status: 0 printed, 1 the file cannot be read or not every record printed, 2 wrong\n"
        "usage.");
    addFileArgument(*verb, options->file);
    verb->add_flag("--json", options->json, "Print JSON on a terminal as well");
    addFilterOptions(*verb, options->filter);
    verb->callback([options, &status] { status = printRecords(*options) ? 0 : 1; });
}

void addReplayVerb(CLI::App& spool, int& status) {
    const auto options = std::make_shared<ReplayOptions>();
    const auto isDry = std::make_shared<bool>(false);
    CLI::App* verb = spool.add_subcommand(
        "replay", "Send the requests of a file to the agent, as they stand, and remove it.");
    verb->footer(
        "Moves FILE aside to FILE.replay, so that running applications begin a new one, and takes\n"
        "that next until none is left. FILE.progress keeps how much the agent has read, from\n"
        "which the next replay goes on when one was ended in whatever way. Every record arrives\n"
        "at least once: after a kill of either side up to 64 KiB are sent again. Over TCP the\n"
        "agent's host acknowledges what the agent may not have read yet; that is lost when the\n"
        "agent is killed. Bytes that are no record are kept in FILE.damaged.\n"
        "Example: qvctl spool replay --wait --rate 5000\n"
        "Exit status: 0 all replayed, 1 not all or another failure, 2 wrong usage.");
    addFileArgument(*verb, options->file);
    verb->add_option_function<std::string>(
            "--transport",
            [options](const std::string& name) {
                options->transport = Transport{socketType(name)};
            },
            "Way to the agent")
        ->check(CLI::IsMember({"unix", "tcp"}))
        ->default_str("unix");
    addNumber<uint64_t>(*verb, "--rate", options->recordsPerSecond, 1, 1000000000,
                        "At most so many records a second");
    verb->add_flag("--wait", options->waitsForAgent, "Wait for the agent whenever it is not there");
    verb->add_flag("--dry-run", *isDry, "Only say what would be replayed");
    verb->callback([options, isDry, &status] {
        if (*isDry) {
            describeReplay(*options);
            return;
        }
        catchStopSignals();
        status = replay(*options) ? 0 : 1;
    });
}

}  // namespace

void addSpoolVerb(CLI::App& program, int& status) {
    CLI::App* verb =
        program.add_subcommand("spool", "Look at the fallback file, or replay it to the agent.");
    verb->footer(
        "Applications turn over to the fallback file what the agent cannot take; a replay brings\n"
        "it in.\n"
        "Example: qvctl spool info && qvctl spool replay\n"
        "Exit status: 0 success, 1 failure, 2 wrong usage; the verbs' help says what success is.");
    verb->require_subcommand(1);
    addInfoVerb(*verb);
    addCatVerb(*verb, status);
    addReplayVerb(*verb, status);
}

}  // namespace Quorvel
