#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "endpoint.h"
#include "record_line.h"
#include "request_decoder.h"
#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

const size_t kReadSize = 64 << 10;  // also more than any datagram
const int kDatagramsPerRound = 256;
const int kAcceptRetrySeconds = 1;

struct ListenOptions {
    std::vector<Transport> transports;
    bool json = false;
    uint64_t count = 0;
};

volatile sig_atomic_t stopRequested = 0;

/// Lets SIGINT and SIGTERM in only while the program waits, so that none is missed between a look
/// at the flag and the wait. A second signal ends the program in the default way.
class StopSignals {
 public:
    StopSignals() {
        struct sigaction action {};
        action.sa_handler = [](int) { stopRequested = 1; };
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM}) {
            sigaddset(&signals, signal);
            sigaction(signal, &action, nullptr);
        }
        sigprocmask(SIG_BLOCK, &signals, &m_waitMask);
        for (const int signal : {SIGINT, SIGTERM}) {
            sigdelset(&m_waitMask, signal);
        }
    }

    /// @return how many are ready; 0 also when a signal ended the wait.
    int wait(std::vector<pollfd>& polled, const timespec* timeout) const {
        const int ready = ppoll(polled.data(), polled.size(), timeout, &m_waitMask);
        if (ready < 0 && errno != EINTR) {
            throw std::runtime_error(std::string("cannot wait for input: ") + strerror(errno));
        }
        return std::max(ready, 0);
    }

 private:
    sigset_t m_waitMask;
};

/// Collects lines for standard output.
class Output {
 public:
    explicit Output(const StopSignals& signals) : m_signals(signals) {}

    void add(const std::string& line) { m_text += line; }

    /// Writes what was added; gives it up when a signal arrives while the reader does not read.
    void flush() {
        size_t written = 0;
        while (written < m_text.size() && isWritable()) {
            // A pipe that is ready takes this many bytes without blocking.
            const size_t length = std::min<size_t>(m_text.size() - written, PIPE_BUF);
            const ssize_t result = write(STDOUT_FILENO, m_text.data() + written, length);
            if (result < 0 && errno != EAGAIN) {
                throw std::runtime_error(std::string("cannot write to standard output: ") +
                                         strerror(errno));
            }
            written += static_cast<size_t>(std::max<ssize_t>(result, 0));
        }
        m_text.clear();
    }

 private:
    bool isWritable() const {
        std::vector<pollfd> polled{{STDOUT_FILENO, POLLOUT, 0}};
        return m_signals.wait(polled, nullptr) > 0;
    }

    const StopSignals& m_signals;
    std::string m_text;
};

/// What arrived, by application and log type.
class Summary {
 public:
    void add(const Request& request) {
        Amount& amount = m_amounts[{request.application, request.logType}];
        ++amount.records;
        amount.bytes += request.body.size();
        ++m_records;
    }
    void addMalformed() { ++m_malformed; }
    uint64_t records() const { return m_records; }

    void print() const {
        for (const auto& [key, amount] : m_amounts) {
            std::cerr << "qvctl: " << escapeForTerminal(key.first) << " type " << key.second << ": "
                      << amount.records << " records, " << amount.bytes << " bytes\n";
        }
        std::cerr << "qvctl: " << m_records << " records in all, " << m_malformed
                  << " malformed inputs\n";
    }

 private:
    struct Amount {
        uint64_t records = 0;
        uint64_t bytes = 0;
    };

    std::map<std::pair<std::string, int>, Amount> m_amounts;
    uint64_t m_records = 0;
    uint64_t m_malformed = 0;
};

struct Connection {
    Descriptor socket;
    Transport transport;
    uint64_t number;
    RequestDecoder decoder;
    bool ended = false;
};

/// Serves the endpoints until a signal, the wanted number of records or an error.
class Listener {
 public:
    explicit Listener(const ListenOptions& options)
        : m_options(options),
          m_outputIsTerminal(isatty(STDOUT_FILENO)),
          m_output(m_signals),
          m_input(kReadSize) {
        for (const Transport transport : options.transports) {
            m_endpoints.emplace_back(transport);
        }
        for (const Endpoint& endpoint : m_endpoints) {
            std::cerr << "qvctl: listening on " << endpoint.name() << '\n';
        }
    }

    void run() {
        while (!stopRequested && !hasEnough()) {
            serveOnce();
            m_output.flush();
        }
        m_summary.print();
    }

 private:
    bool hasEnough() const {
        return m_options.count != 0 && m_summary.records() == m_options.count;
    }

    void serveOnce() {
        std::vector<pollfd> polled = pollSet();
        const timespec retry{kAcceptRetrySeconds, 0};
        if (m_signals.wait(polled, m_accepting ? nullptr : &retry) == 0) {
            m_accepting = true;
            return;
        }
        auto entry = polled.begin();
        if (entry++->revents != 0) {
            throw std::runtime_error("standard output was closed");
        }
        for (const Endpoint& endpoint : m_endpoints) {
            if (entry++->revents != 0) {
                serve(endpoint);
            }
        }
        auto connection = m_connections.begin();
        for (; entry != polled.end(); ++entry, ++connection) {
            if (entry->revents != 0) {
                serve(*connection);
            }
        }
        if (const auto isEnded = [](const Connection& each) { return each.ended; };
            std::any_of(m_connections.begin(), m_connections.end(), isEnded)) {
            m_connections.remove_if(isEnded);
            m_accepting = true;
        }
    }

    /// Standard output (for its reader's end), the endpoints, the connections.
    std::vector<pollfd> pollSet() const {
        std::vector<pollfd> polled{{STDOUT_FILENO, 0, 0}};
        for (const Endpoint& endpoint : m_endpoints) {
            const bool wanted = m_accepting || endpoint.transport() == Transport::kUdp;
            polled.push_back({wanted ? endpoint.fd() : -1, POLLIN, 0});
        }
        for (const Connection& connection : m_connections) {
            polled.push_back({connection.socket.get(), POLLIN, 0});
        }
        return polled;
    }

    void serve(const Endpoint& endpoint) {
        if (endpoint.transport() == Transport::kUdp) {
            receiveDatagrams(endpoint);
        } else {
            acceptConnection(endpoint);
        }
    }

    void receiveDatagrams(const Endpoint& endpoint) {
        for (int i = 0; i < kDatagramsPerRound && !hasEnough(); ++i) {
            const ssize_t length = recv(endpoint.fd(), m_input.data(), m_input.size(), 0);
            if (length < 0) {
                return;
            }
            Request request;
            std::string error;
            if (decodeRequest(m_input.data(), static_cast<size_t>(length), request, error)) {
                take(endpoint.transport(), request);
            } else {
                reportMalformed("udp datagram refused: " + error);
            }
        }
    }

    /// Out of descriptors or memory, new connections wait in the backlog until one here ends.
    void acceptConnection(const Endpoint& endpoint) {
        Descriptor socket(accept4(endpoint.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.get() >= 0) {
            m_shortage = false;
            m_connections.push_back(
                {std::move(socket), endpoint.transport(), ++m_connectionNumber, {}});
        } else if (errno != EAGAIN && errno != ECONNABORTED) {
            const char* reason = strerror(errno);
            if (!m_shortage) {
                std::cerr << "qvctl: " << endpoint.name()
                          << ": new connections have to wait: " << reason << '\n';
            }
            m_shortage = true;
            m_accepting = false;
        }
    }

    void serve(Connection& connection) {
        const ssize_t length = recv(connection.socket.get(), m_input.data(), m_input.size(), 0);
        if (length < 0 && errno == EAGAIN) {
            return;
        }
        if (length <= 0) {
            connection.ended = true;
            if (connection.decoder.pending() > 0) {
                reportMalformed(connection, "ended inside a request");
            }
            return;
        }
        connection.decoder.feed(m_input.data(), static_cast<size_t>(length));
        decode(connection);
    }

    void decode(Connection& connection) {
        Request request;
        while (!hasEnough()) {
            switch (connection.decoder.next(request)) {
                case RequestDecoder::Status::kRequest:
                    take(connection.transport, request);
                    break;
                case RequestDecoder::Status::kNeedMore:
                    return;
                case RequestDecoder::Status::kMalformed:
                    connection.ended = true;
                    reportMalformed(connection, connection.decoder.error());
                    return;
            }
        }
    }

    void take(Transport transport, const Request& request) {
        m_summary.add(request);
        m_output.add(m_options.json || !m_outputIsTerminal
                         ? jsonLine(transport, request, m_outputIsTerminal)
                         : readableLine(transport, request));
    }

    void reportMalformed(const Connection& connection, const std::string& error) {
        reportMalformed(std::string(transportName(connection.transport)) + " connection " +
                        std::to_string(connection.number) + " closed: " + error);
    }

    void reportMalformed(const std::string& message) {
        m_summary.addMalformed();
        std::cerr << "qvctl: " << message << '\n';
    }

    const ListenOptions& m_options;
    const StopSignals m_signals;
    const bool m_outputIsTerminal;
    Output m_output;
    Summary m_summary;
    std::list<Endpoint> m_endpoints;
    std::list<Connection> m_connections;
    uint64_t m_connectionNumber = 0;
    bool m_accepting = true;
    bool m_shortage = false;  // reported, and no connection accepted since
    std::vector<char> m_input;
};

}  // namespace

void addListenVerb(CLI::App& program, int& status) {
    const auto options = std::make_shared<ListenOptions>();
    CLI::App* verb = program.add_subcommand(
        "listen", "Stand in for the collection agent: print every record that arrives.");
    verb->footer(
        "Listens on all endpoints, or on those named. Prints one line per record: readable on a\n"
        "terminal, a JSON object otherwise; text that is not UTF-8 is in base64 there, marked by\n"
        "the key applicationEncoding or bodyEncoding. Input that is no request closes its\n"
        "connection with a message on standard error. Ctrl-C prints a summary and ends it.\n"
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
            [options, chosen] { options->transports.push_back(chosen); }, help);
    }
    verb->add_flag("--json", options->json, "Print JSON on a terminal as well");
    verb->add_option("--count", options->count, "End after this many records")
        ->check(CLI::Range(uint64_t{1}, UINT64_MAX, "POSITIVE"));
    verb->callback([options, &status] {
        if (options->transports.empty()) {
            options->transports.assign(std::begin(kTransports), std::end(kTransports));
        }
        signal(SIGPIPE, SIG_IGN);
        Listener(*options).run();
        status = 0;
    });
}

}  // namespace Quorvel
