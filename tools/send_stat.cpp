#include <limits.h>
#include <qvapi_cpp.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "command_line.h"
#include "deliveries.h"
#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

const size_t kMaxStatText = 1023;  // where the library cuts a record
const char* const kKinds[] = {"count", "sum", "min", "max"};

struct StatOptions {
    std::string name;
    std::string data;
    std::map<std::string, int> values;
    int type = 0;
    std::string kind = kKinds[QV_STAT_TYPE_SUM];
    std::string transport = transportName(Transport::kUnix);
};

std::map<std::string, int> parse(const std::vector<std::string>& texts) {
    std::map<std::string, int> values;
    for (const std::string& text : texts) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos) {
            throw CLI::ValidationError("VALUE", text + " is not NAME=INTEGER");
        }
        if (equals == 0) {
            throw CLI::ValidationError("VALUE", text + " has no name");
        }
        const std::string name = text.substr(0, equals);
        const int value = parseNumber(name, text.substr(equals + 1), INT_MIN, INT_MAX);
        if (!values.emplace(name, value).second) {
            throw CLI::ValidationError("VALUE", name + " is given twice");
        }
    }
    return values;
}

void check(CLogger& logger, int code) {
    if (code != QV_ERR_OK) {
        throw std::runtime_error(logger.get_errmsg());
    }
}

/// The batch in front of an empty one, which makes no record, has been written once the thread has
/// taken the empty one as well.
void awaitStatThread(CLogger& logger) {
    pthread_rwlock_wrlock(&logger.m_queue_lock);
    logger.m_stat_log_queues.push({});
    pthread_rwlock_unlock(&logger.m_queue_lock);
    for (bool waits = true; waits;) {
        usleep(10000);
        pthread_rwlock_rdlock(&logger.m_queue_lock);
        waits = !logger.m_stat_log_queues.empty();
        pthread_rwlock_unlock(&logger.m_queue_lock);
    }
}

/// The thread keeps its results to itself; of a failure, the logger's first, the text remains.
int resultOfRecord(CLogger& logger, const StatOptions& options) {
    if (logger.get_errmsg().empty()) {
        return QV_ERR_OK;
    }
    return options.transport == transportName(Transport::kUdp) ? QV_ERR_DATAGRAM : QV_ERR_CONNECT;
}

size_t recordLength(const StatOptions& options) {
    size_t length = options.data.size();
    for (const auto& [name, value] : options.values) {
        length += 1 + name.size() + 1 + std::to_string(value).size();
    }
    return length;
}

void requireWhole(const StatOptions& options) {
    const size_t length = recordLength(options);
    if (length > kMaxStatText) {
        throw CLI::ValidationError("VALUE", "the record would have " + std::to_string(length) +
                                                " bytes and be cut at " +
                                                std::to_string(kMaxStatText));
    }
}

int sendStat(StatOptions& options) {
    CLogger logger(socketType(options.transport));
    check(logger, logger.init(options.name));
    // With a size of 0, each call closes the batch of the one before.
    check(logger, logger.set_stat(true, static_cast<int8_t>(options.type), UINT32_MAX, 0));
    const auto now = static_cast<unsigned int>(time(nullptr));
    const int kind = indexOf(kKinds, options.kind);
    Deliveries deliveries;
    for (int i = 0; i < 2; ++i) {
        check(logger, logger.write_statlogs(options.data, options.values, kind, now));
    }
    awaitStatThread(logger);
    deliveries.add(resultOfRecord(logger, options), logger.get_errmsg(),
                   options.name.size() + recordLength(options));
    deliveries.report();
    return deliveries.allAccepted() ? 0 : 1;
}

}  // namespace

void addSendStatVerb(CLI::App& send, int& status) {
    const auto options = std::make_shared<StatOptions>();
    CLI::App* verb = send.add_subcommand(
        "stat", "Merge named values under a text and wait until their record was written.");
    verb->footer(
        "Reports what became of the record, as qvctl send does.\n"
        "Example: qvctl send stat myapp login ok=5 failed=1 --kind count\n"
        "Exit status: 0 accepted, 1 not accepted, 2 wrong usage.");
    verb->add_option("NAME", options->name, "The application's name")
        ->type_name("")
        ->transform(unprotect)
        ->required();
    verb->add_option("DATA", options->data, "What is measured")
        ->type_name("")
        ->transform(unprotect)
        ->required();
    const auto parseValues = [options](const std::vector<std::string>& texts) {
        options->values = parse(texts);
    };
    verb->add_option_function<std::vector<std::string>>("VALUE", parseValues,
                                                        "The values, as NAME=INTEGER")
        ->type_name("")
        ->transform(unprotect)
        ->required();
    verb->add_option("--kind", options->kind, "How values combine")
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(kKinds), std::end(kKinds))))
        ->capture_default_str();
    addNumber(*verb, "--type", options->type, 0, kMaxBaseLogType, "Log type")->default_str("0");
    addTransportOption(*verb, options->transport);
    verb->callback([options, &status] {
        requireWhole(*options);
        status = sendStat(*options);
    });
}

}  // namespace Quorvel
