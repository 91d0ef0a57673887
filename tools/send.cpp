#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <qvapi_cpp.h>
#include <stdint.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "command_line.h"
#include "deliveries.h"
#include "descriptor.h"
#include "line_reader.h"
#include "pace.h"
#include "progress_line.h"
#include "request_format.h"
#include "stop_signals.h"
#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

struct SendOptions {
    std::string name;
    std::vector<std::string> texts;
    std::string binary;
    bool keepEmpty = false;
    int type = 0;
    std::string transport = transportName(Transport::kUnix);
    std::optional<uint32_t> time;
    uint64_t repeat = 1;
    uint64_t rate = 0;  // records a second; 0: as fast as can be
};

/// Writes base logs at the wanted pace and counts what became of them.
class Sender {
 public:
    explicit Sender(const SendOptions& options)
        : m_options(options),
          m_logger(socketType(options.transport), false),
          m_pace(options.rate),
          m_showsProgress(options.rate > 0 || options.repeat > 1) {
        if (m_logger.init(options.name) != QV_ERR_OK) {
            throw std::runtime_error(m_logger.get_errmsg());
        }
    }

    /// Writes the record as often as wanted, unless a stop is requested.
    /// @param part how much of the input was sent before it, @param share how much it is itself.
    void send(std::string_view body, double part, double share) {
        const auto repeats = static_cast<double>(m_options.repeat);
        for (uint64_t i = 0; i < m_options.repeat; ++i) {
            m_pace.await();
            if (stopRequested()) {
                m_isCutShort = true;
                return;
            }
            const int code = write(body);
            m_pace.count();
            if (code != QV_ERR_OK) {
                m_progress.clear();
            }
            m_deliveries.add(code, m_logger.get_errmsg(), m_options.name.size() + body.size());
            if (m_showsProgress) {
                m_progress.show(m_deliveries.records(), m_deliveries.bytes(),
                                part + share * static_cast<double>(i + 1) / repeats);
            }
        }
    }

    /// @return the exit status.
    int report() {
        m_progress.clear();
        m_deliveries.report();
        if (m_isCutShort) {
            std::cerr << "qvctl: stopped before all records were written\n";
        }
        return m_deliveries.allAccepted() && !m_isCutShort ? 0 : 1;
    }

 private:
    int write(std::string_view body) {
        const auto now = static_cast<uint32_t>(time(nullptr));
        const uint32_t timestamp = m_options.time.value_or(now);
        const auto type = static_cast<int8_t>(m_options.type);
        const bool isBinary = !m_options.binary.empty();
        if (isBinary || m_options.keepEmpty) {
            // A length that 32 bits cannot hold stays one that the library refuses.
            const auto length = static_cast<unsigned int>(std::min<size_t>(body.size(), UINT_MAX));
            return m_logger.write_baselog(body.data(), length, type, isBinary ? 1 : 0, timestamp);
        }
        return m_logger.write_baselog(type, std::string(body), false, timestamp);
    }

    const SendOptions& m_options;
    CLogger m_logger;
    Pace m_pace;
    const bool m_showsProgress;
    ProgressLine m_progress;
    Deliveries m_deliveries;
    bool m_isCutShort = false;
};

/// @return the file's bytes, or those that were read before a stop was requested. Throws when it
/// cannot be read or has more bytes than `limit`.
std::string contents(const std::string& path, size_t limit) {
    const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes;
    char part[1 << 16];
    ssize_t length = fd.get();
    while (length >= 0 && !stopRequested() && (length = read(fd.get(), part, sizeof(part))) > 0) {
        if (bytes.size() + static_cast<size_t>(length) > limit) {
            throw std::runtime_error(path + " has more than the " + std::to_string(limit) +
                                     " bytes that a record has room for");
        }
        bytes.append(part, static_cast<size_t>(length));
    }
    if (length < 0 && !stopRequested()) {
        throw std::runtime_error("cannot read " + path + ": " + strerror(errno));
    }
    return bytes;
}

void sendLines(const SendOptions& options, Sender& sender) {
    LineReader reader;
    for (std::string_view line; reader.next(line);) {
        if (!line.empty() || options.keepEmpty) {
            sender.send(line, reader.part(), 0);
        }
    }
}

int send(const SendOptions& options) {
    catchStopSignals();
    Sender sender(options);
    const double share = 1 / static_cast<double>(options.texts.size());
    for (size_t i = 0; i < options.texts.size(); ++i) {
        sender.send(options.texts[i], share * static_cast<double>(i), share);
    }
    if (!options.binary.empty()) {
        const size_t limit = INT_MAX - kPrefixLength - options.name.size();
        sender.send(contents(options.binary, limit), 0, 1);
    } else if (options.texts.empty()) {
        sendLines(options, sender);
    }
    return sender.report();
}

}  // namespace
void addTransportOption(CLI::App& verb, std::string& transport) {
    verb.add_option("--transport", transport, "Way to the agent")
        ->check(CLI::IsMember(
            std::vector<std::string>(std::begin(kTransportNames), std::end(kTransportNames))))
        ->capture_default_str();
}

void addSendVerb(CLI::App& program, int& status) {
    const auto options = std::make_shared<SendOptions>();
    CLI::App* verb = program.add_subcommand(
        "send", "Write base logs through the library and report what became of them.");
    verb->footer(
        "Reports how many records were accepted (sent, or dropped by sampling), how many the\n"
        "fallback file took because the agent could not, as far as its growth tells, and how many\n"
        "were lost (with the reason). Ctrl-C ends it with the report.\n"
        "A NAME or TEXT that is itself module or stat stands behind --, as does the NAME then.\n"
        "Example: qvctl send myapp 'user=7&action=login' --type 5 --repeat 1000 --rate 100\n"
        "Exit status: 0 all accepted, 1 not all accepted, none could be written, or stopped\n"
        "before all that was named or read was written, 2 wrong usage.");
    verb->add_option("NAME", options->name, "The application's name")
        ->type_name("")
        ->transform(unprotect);
    CLI::Option* const texts =
        verb->add_option("TEXT", options->texts,
                         "The records; without any, each line of standard input is one")
            ->type_name("")
            ->transform(unprotect);
    verb->add_option("--binary", options->binary, "Send this file's bytes as one binary record")
        ->type_name("FILE")
        ->transform(unprotect)
        ->check(checkFileName)
        ->excludes(texts);
    verb->add_flag("--keep-empty", options->keepEmpty,
                   "Send empty lines and texts, too; empty lines are skipped by default");
    addNumber(*verb, "--type", options->type, 0, kMaxBaseLogType, "Log type")->default_str("0");
    addTransportOption(*verb, options->transport);
    addNumber<uint32_t>(*verb, "--time", options->time, 0, UINT32_MAX,
                        "Time stamp in seconds since the epoch; the current time by default");
    addNumber<uint64_t>(*verb, "--repeat", options->repeat, 1, UINT64_MAX,
                        "Send each record so many times");
    addNumber<uint64_t>(*verb, "--rate", options->rate, 1, 1000000000,
                        "Send at most so many records a second");
    addSendModuleVerb(*verb, status);
    addSendStatVerb(*verb, status);
    verb->callback([options, verb, &status] {
        if (!verb->get_subcommands().empty()) {
            return;
        }
        if (verb->count("NAME") == 0) {
            throw CLI::RequiredError("NAME");
        }
        status = send(*options);
    });
}

}  // namespace Quorvel
