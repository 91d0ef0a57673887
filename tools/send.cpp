#include <qvapi_cpp.h>
#include <stdint.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

struct SendOptions {
    std::string name;
    std::vector<std::string> texts;
    int type = 0;
    std::string transport = transportName(Transport::kUnix);
    std::optional<uint32_t> time;
};

/// Writes base logs and counts what became of them.
class Sender {
 public:
    explicit Sender(const SendOptions& options)
        : m_options(options), m_logger(socketType(options.transport), false) {
        if (m_logger.init(options.name) != QV_ERR_OK) {
            throw std::runtime_error(m_logger.get_errmsg());
        }
    }

    void send(const std::string& text) {
        const uint32_t now = static_cast<uint32_t>(time(nullptr));
        const int code = m_logger.write_baselog(static_cast<int8_t>(m_options.type), text, false,
                                                m_options.time.value_or(now));
        ++m_records;
        if (code == QV_ERR_OK) {
            ++m_accepted;
        } else if (code == QV_ERR_CONNECT || code == QV_ERR_WRITE) {
            ++m_turnedOver;
        } else {
            std::cerr << "qvctl: record " << m_records << " lost with code " << code << ": "
                      << m_logger.get_errmsg() << '\n';
        }
    }

    bool allAccepted() const { return m_accepted == m_records; }

    void report() const {
        std::cout << "accepted: " << m_accepted
                  << "\nturned over to the fallback file: " << m_turnedOver
                  << "\nlost: " << m_records - m_accepted - m_turnedOver << std::endl;
    }

 private:
    const SendOptions& m_options;
    CLogger m_logger;
    uint64_t m_records = 0;
    uint64_t m_accepted = 0;
    uint64_t m_turnedOver = 0;
};

void sendLines(std::istream& input, Sender& sender) {
    for (std::string line; std::getline(input, line);) {
        sender.send(line);
    }
    if (input.bad()) {
        throw std::runtime_error("cannot read standard input");
    }
}

int send(const SendOptions& options) {
    Sender sender(options);
    if (options.texts.empty()) {
        std::ios::sync_with_stdio(false);
        sendLines(std::cin, sender);
    }
    for (const std::string& text : options.texts) {
        sender.send(text);
    }
    sender.report();
    return sender.allAccepted() ? 0 : 1;
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
        "Reports how many records were accepted (sent, or dropped by sampling), turned over to\n"
        "the fallback file because the agent could not take them, or lost (with the reason, on\n"
        "standard error).\n"
        "An application that is itself called module or stat stands behind --.\n"
        "Exit status: 0 all accepted, 1 not all accepted or none could be written, 2 wrong usage.");
    verb->add_option("NAME", options->name, "The application's name")
        ->type_name("")
        ->transform(unprotect);
    verb->add_option("TEXT", options->texts,
                     "The records; without any, each line of standard input is one")
        ->type_name("")
        ->transform(unprotect);
    verb->add_option("--type", options->type, "Log type")
        ->check(CLI::Range(0, 110))
        ->capture_default_str();
    addTransportOption(*verb, options->transport);
    verb->add_option("--time", options->time,
                     "Time stamp in seconds since the epoch; the current time by default");
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
