#include <stdint.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command_line.h"
#include "kept_requests.h"
#include "listener.h"
#include "monotonic_time.h"
#include "output.h"
#include "record_filter.h"
#include "record_printer.h"
#include "stats_table.h"
#include "stop_signals.h"
#include "tally.h"
#include "text_safety.h"
#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

const size_t kSummaryRows = 50;

struct ListenOptions {
    ListenerOptions listener;
    RecordFilter filter;
    std::string mode = "0666";
    std::string keep;
    bool json = false;
    bool stats = false;
    int64_t count = 0;
    int64_t slowMilliseconds = 0;
};

/// What becomes of the records that arrive, until the wanted number is there.
class Records {
 public:
    explicit Records(const ListenOptions& options)
        : m_options(options), m_printer(makeRecordPrinter(recordStyle(options.json))) {
        if (!options.keep.empty()) {
            m_kept.emplace(options.keep);
        }
    }

    /// @return whether more are wanted.
    bool take(Transport transport, const RequestView& request) {
        if (!m_options.filter.matches(request)) {
            return true;
        }
        m_tally.add(request);
        if (m_kept) {
            m_kept->add(request.bytes);
        }
        if (!m_options.stats) {
            m_printer->print(request, transport, m_output);
        }
        pause();
        return m_options.count == 0 ||
               m_tally.total().records < static_cast<uint64_t>(m_options.count);
    }

    /// Keeps and shows what was taken.
    void show() {
        if (m_kept) {
            m_kept->flush();
        }
        if (!m_options.stats) {
            m_output.flush();
        } else if (millisecondsLeft() == 0) {
            m_table.draw(m_tally, m_output);
        }
    }

    /// @return how long until show() is due without a new record; -1: not at all.
    int64_t millisecondsLeft() const { return m_options.stats ? m_table.millisecondsLeft() : -1; }

    void end(uint64_t malformedInputs) {
        if (m_options.stats) {
            m_table.draw(m_tally, m_output);
        }
        Tally::Amount others = m_tally.others();
        const std::vector<Tally::Row> rows = m_tally.rows();
        for (size_t i = 0; i < rows.size(); ++i) {
            if (i >= kSummaryRows) {
                others.add(rows[i].amount);
                continue;
            }
            const auto& [name, logType] = *rows[i].key;
            printAmount(escapeForTerminal(name) + " type " + std::to_string(logType),
                        rows[i].amount);
        }
        if (others.records > 0) {
            printAmount("all others", others);
        }
        std::cerr << "qvctl: " << m_tally.total().records << " records in all, " << malformedInputs
                  << " malformed inputs\n";
    }

 private:
    void pause() {
        const int64_t end = monotonicMilliseconds() + m_options.slowMilliseconds;
        for (int64_t left = m_options.slowMilliseconds; left > 0 && !stopRequested();
             left = end - monotonicMilliseconds()) {
            show();
            const int64_t nap = m_options.stats ? std::min(left, millisecondsLeft()) : left;
            const timespec length = {nap / 1000, nap % 1000 * 1000000};
            nanosleep(&length, nullptr);
        }
    }

    static void printAmount(const std::string& what, const Tally::Amount& amount) {
        std::cerr << "qvctl: " << what << ": " << amount.records << " records, " << amount.bytes
                  << " bytes\n";
    }

    const ListenOptions& m_options;
    const std::unique_ptr<RecordPrinter> m_printer;
    std::optional<KeptRequests> m_kept;
    Output m_output;
    Tally m_tally;
    StatsTable m_table;
};

std::string octalMode(const std::string& text) {
    const bool isOctal = !text.empty() && text.size() <= 4 &&
                         text.find_first_not_of("01234567") == std::string::npos;
    return isOctal && std::stoul(text, nullptr, 8) <= 0777 ? "" : text + " is no mode of 0 to 0777";
}

void listen(const ListenOptions& options) {
    catchStopSignals();
    Records records(options);
    Listener listener(options.listener,
                      [&records](Transport transport, const RequestView& request) {
                          return records.take(transport, request);
                      });
    try {
        while (!stopRequested() && !listener.isDone()) {
            listener.serve(records.millisecondsLeft());
            records.show();
        }
        if (!listener.isDone()) {
            listener.drain();
        }
        records.show();
    } catch (...) {
        records.end(listener.malformedInputs());
        throw;
    }
    records.end(listener.malformedInputs());
}

}  // namespace

void addListenVerb(CLI::App& program, int& status) {
    const auto options = std::make_shared<ListenOptions>();
    CLI::App* verb = program.add_subcommand(
        "listen", "Stand in for the collection agent: print every record that arrives.");
    verb->footer(
        "Listens on all endpoints, or on those named. Prints one line per record: readable on a\n"
        "terminal (in colours unless NO_COLOR is set), a JSON object otherwise; text that is not\n"
        "UTF-8 is in base64 there, marked by the key applicationEncoding or bodyEncoding. Input\n"
        "that is no request closes its connection with a message on standard error.\n"
        "Ctrl-C reads what the clients' sockets still hold, prints a summary and ends; a second\n"
        "one ends at once.\n"
        "Example: qvctl listen --unix --json | jq .body\n"
        "Exit status: 0 ended by SIGINT, SIGTERM or --count, 1 an endpoint is taken, standard\n"
        "output was closed, or another failure, 2 wrong usage.");
    const std::pair<Transport, const char*> endpoints[] = {
        {Transport::kUnix, "Listen on the Unix-domain socket /data/container2host/cqv"},
        {Transport::kTcp, "Listen on TCP 127.0.0.1:20005"},
        {Transport::kUdp, "Listen on UDP 127.0.0.1:20005"},
    };
    for (const auto& [transport, help] : endpoints) {
        const Transport chosen = transport;
        verb->add_flag_callback(
            std::string("--") + transportName(transport),
            [options, chosen] { options->listener.transports.push_back(chosen); }, help);
    }
    verb->add_option("--mode", options->mode, "Permissions of the Unix-domain socket's file")
        ->check(octalMode)
        ->type_name("OCTAL")
        ->capture_default_str();
    verb->add_flag("--json", options->json, "Print JSON on a terminal as well");
    verb->add_flag("--stats", options->stats,
                   "Instead of records, print a table of records and bytes a second");
    verb->add_option("--keep", options->keep,
                     "Append the requests to this file, in the fallback file's format")
        ->check(checkFileName)
        ->type_name("FILE")
        ->transform(unprotect);
    addNumber<int64_t>(*verb, "--count", options->count, 1, INT64_MAX,
                       "End after this many records");
    addFilterOptions(*verb, options->filter);
    addNumber<int64_t>(*verb, "--idle", options->listener.idleSeconds, 1, INT32_MAX,
                       "Close a connection that sends nothing for so long")
        ->type_name("SECONDS");
    addNumber<int64_t>(*verb, "--slow", options->slowMilliseconds, 1, INT32_MAX,
                       "Play a slow agent: pause for so long after each record")
        ->type_name("MILLISECONDS");
    verb->add_flag("--stall", options->listener.stalled,
                   "Play a stuck agent: accept and read nothing until Ctrl-C");
    verb->callback([options, &status] {
        ListenerOptions& listener = options->listener;
        if (listener.transports.empty()) {
            listener.transports.assign(std::begin(kTransports), std::end(kTransports));
        }
        listener.socketMode = static_cast<mode_t>(std::stoul(options->mode, nullptr, 8));
        listen(*options);
        status = 0;
    });
}

}  // namespace Quorvel
