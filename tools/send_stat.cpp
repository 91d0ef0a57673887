#include <qvapi_cpp.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "transport.h"
#include "verbs.h"

namespace Quorvel {
namespace {

const char* const kKinds[] = {"count", "sum", "min", "max"};

struct StatOptions {
    std::string name;
    std::string data;
    std::vector<std::string> values;
    int type = 0;
    std::string kind = kKinds[QV_STAT_TYPE_SUM];
    std::string transport = transportName(Transport::kUnix);
};

std::map<std::string, int> parse(const std::vector<std::string>& texts) {
    std::map<std::string, int> values;
    for (const std::string& text : texts) {
        const size_t equals = text.find('=');
        int value = 0;
        const char* const end = text.data() + text.size();
        if (equals == std::string::npos ||
            std::from_chars(text.data() + equals + 1, end, value).ptr != end ||
            equals + 1 == text.size()) {
            throw std::runtime_error("not NAME=INTEGER: " + text);
        }
        values[text.substr(0, equals)] = value;
    }
    return values;
}

void check(CLogger& logger, int code) {
    if (code != QV_ERR_OK) {
        throw std::runtime_error(logger.get_errmsg());
    }
}

bool hasQueuedBatch(CLogger& logger) {
    pthread_rwlock_wrlock(&logger.m_queue_lock);
    const bool queued = !logger.m_stat_log_queues.empty();
    pthread_rwlock_unlock(&logger.m_queue_lock);
    return queued;
}

int sendStat(const StatOptions& options) {
    std::map<std::string, int> values = parse(options.values);
    CLogger logger(socketType(options.transport));
    check(logger, logger.init(options.name));
    // With a size of 0, each call closes the batch of the one before.
    check(logger, logger.set_stat(true, static_cast<int8_t>(options.type), UINT32_MAX, 0));
    const auto now = static_cast<unsigned int>(time(nullptr));
    const int kind = indexOf(kKinds, options.kind);
    check(logger, logger.write_statlogs(options.data, values, kind, now));
    // A text that begins with a NUL makes no record. Once its batch is taken, the one before it has
    // been written.
    std::map<std::string, int> nothing;
    for (int i = 0; i < 2; ++i) {
        check(logger, logger.write_statlogs(std::string(1, '\0'), nothing, kind, now));
    }
    while (hasQueuedBatch(logger)) {
        usleep(10000);
    }
    std::cout << "merged and closed: 1 record (the statistics thread does not report what became "
                 "of it)"
              << std::endl;
    return 0;
}

}  // namespace

void addSendStatVerb(CLI::App& send, int& status) {
    const auto options = std::make_shared<StatOptions>();
    CLI::App* verb = send.add_subcommand(
        "stat", "Merge named values under a text and wait until their record was written.");
    verb->add_option("NAME", options->name, "The application's name")
        ->type_name("")
        ->transform(unprotect)
        ->required();
    verb->add_option("DATA", options->data, "What is measured")
        ->type_name("")
        ->transform(unprotect)
        ->required();
    verb->add_option("VALUE", options->values, "The values, as NAME=INTEGER")
        ->type_name("")
        ->transform(unprotect)
        ->required();
    verb->add_option("--kind", options->kind, "How values combine")
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(kKinds), std::end(kKinds))))
        ->capture_default_str();
    verb->add_option("--type", options->type, "Log type")
        ->check(CLI::Range(0, 110))
        ->capture_default_str();
    addTransportOption(*verb, options->transport);
    verb->callback([options, &status] { status = sendStat(*options); });
}

}  // namespace Quorvel
