// What a record costs, each row beside the raw send of as many bytes (or what the row names), in
// turns of short slices.
#include <sys/shm.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

// The sink's header needs the other one before it.
// clang-format off
#include <spdlog/spdlog.h>
#include <spdlog/sinks/udp_sink.h>
// clang-format on

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "agent.h"
#include "paired.h"
#include "qvapi_cpp.h"
#include "qvapi_sampling.h"
#include "raw_append.h"
#include "rows.h"

namespace bench {
namespace {

using Quorvel::CLogger;

const char* const kTransports[] = {"unix", "tcp", "udp"};
const unsigned int kTime = 1400000000;
const int kSliceCalls = 100;
const size_t kFraming = 18;
const int8_t kSpareType = 6;

/// Publishes the rate of log type 5 in a table with one slot, as the agent does.
void publish(const std::string& application, int rate) {
    const int id = shmget(9777, 100 * sizeof(Quorvel::AppItem), IPC_CREAT | 0666);
    auto& slot = *static_cast<Quorvel::AppItem*>(shmat(id, nullptr, 0));
    slot = {};
    slot.isUsed = 1;
    application.copy(slot.appname, sizeof(slot.appname) - 1);
    slot.logTypeItems[5].sampling = static_cast<uint8_t>(rate);
    slot.logTypeItems[kSpareType].sampling = 251;
    shmdt(&slot);
    std::filesystem::create_directories("/data/qvagent");
    std::ofstream("/data/qvagent/qv_shm_sampling").flush();
}

/// Loggers and raw sockets of one row: one of each, or one for every thread.
struct Contenders {
    Agent agent;
    std::vector<std::unique_ptr<CLogger>> loggers;
    std::vector<int> sockets;
    std::string request;

    Contenders(int transport, bool locking, int count, size_t requestLength)
        : request(requestLength, 'x') {
        for (int i = 0; i < count; ++i) {
            loggers.push_back(std::make_unique<CLogger>(static_cast<int8_t>(transport), locking));
            sockets.push_back(connectToAgent(transport));
        }
    }
    ~Contenders() {
        for (const int fd : sockets) {
            close(fd);
        }
    }
    Contenders(const Contenders&) = delete;
    Contenders& operator=(const Contenders&) = delete;

    CLogger& logger(int thread) { return *loggers[static_cast<size_t>(thread) % loggers.size()]; }
    int socket(int thread) { return sockets[static_cast<size_t>(thread) % sockets.size()]; }
};

/// A row whose reference is the raw send; `call` makes one call of the logger.
template <typename Call>
Pair besideRawSend(const std::shared_ptr<Contenders>& contenders, Call call) {
    return {[contenders](int thread, int calls) {
                const int fd = contenders->socket(thread);
                const std::string& request = contenders->request;
                for (int i = 0; i < calls; ++i) {
                    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
                }
            },
            [contenders, call](int thread, int calls) {
                CLogger& logger = contenders->logger(thread);
                for (int i = 0; i < calls; ++i) {
                    call(logger);
                }
            },
            [contenders] { contenders->agent.settle(); }};
}

std::shared_ptr<Contenders> applicationMode(int transport, bool locking, int count, size_t body) {
    const std::string name = "benchmark";
    auto contenders =
        std::make_shared<Contenders>(transport, locking, count, kFraming + name.size() + body);
    publish(name, 1);
    for (const auto& logger : contenders->loggers) {
        logger->init(name);
    }
    return contenders;
}

std::string rowName(int transport, size_t size, int threads, bool locking) {
    return std::string(kTransports[transport]) + "/raw form/" + std::to_string(size) + " B/" +
           std::to_string(threads) + (threads == 1 ? " thread/" : " threads/") +
           (locking ? "locking" : "no locking");
}

/// Each thread has a logger of its own, or all share a locked one.
std::shared_ptr<Contenders> loggersOf(int transport, size_t size, int threads, bool locking) {
    return applicationMode(transport, locking, locking ? 1 : threads, size);
}

Pair baseLogBesideRawSend(const std::shared_ptr<Contenders>& contenders, size_t size) {
    const std::string body(size, 'x');
    return besideRawSend(contenders, [body](CLogger& logger) {
        logger.write_baselog(body.data(), static_cast<unsigned int>(body.size()), 5, 0, kTime);
    });
}

void addBaseLog(int transport, size_t size, bool locking) {
    const double limit = (transport == 1 ? 1.10 : 1.05) + (locking ? 0.05 : 0);
    addRow({rowName(transport, size, 1, locking), limit, 1, kSliceCalls,
            [=] { return baseLogBesideRawSend(loggersOf(transport, size, 1, locking), size); }});
}

void addBaseLogOfThreads(int transport, size_t size, bool locking) {
    addRow({rowName(transport, size, 2, locking), locking ? 1.15 : 0, 2, kSliceCalls,
            [=] { return baseLogBesideRawSend(loggersOf(transport, size, 2, locking), size); }});
}

/// The raw send by threads that take turns on one socket.
Slice rawSendInTurns(const std::shared_ptr<Contenders>& contenders) {
    const auto turn = std::make_shared<std::mutex>();
    return [=](int /*thread*/, int calls) {
        const int fd = contenders->socket(0);
        const std::string& request = contenders->request;
        for (int i = 0; i < calls; ++i) {
            const std::lock_guard<std::mutex> guard(*turn);
            send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        }
    };
}

/// On a stream, threads that share a logger take turns, and so does their reference.
void addBaseLogInTurns(int transport, size_t size, int threads) {
    addRow({rowName(transport, size, threads, true) + ", beside the raw send in turns", 1.05,
            threads, threads == 2 ? kSliceCalls : 10 * kSliceCalls, [=] {
                const auto contenders = loggersOf(transport, size, threads, true);
                Pair pair = baseLogBesideRawSend(contenders, size);
                pair.reference = rawSendInTurns(contenders);
                return pair;
            }});
}

void addOtherForms(int transport) {
    const std::string prefix = kTransports[transport];
    addRow({prefix + "/string form/100 B", transport == 1 ? 1.10 : 1.05, 1, kSliceCalls, [=] {
                const std::string body(100, 'x');
                return besideRawSend(
                    applicationMode(transport, false, 1, body.size()),
                    [body](CLogger& logger) { logger.write_baselog(5, body, false, kTime); });
            }});
    addRow({prefix + "/formatted form, two arguments", transport == 1 ? 1.5 : 1.25, 1, kSliceCalls,
            [=] {
                const size_t body = std::strlen("_msg=order=\t1234567,user=\tkim");
                return besideRawSend(
                    applicationMode(transport, false, 1, body), [](CLogger& logger) {
                        logger.write_baselog(5, kTime, "order=%d,user=%s", 1234567, "kim");
                    });
            }});
}

void addModuleRecords() {
    static std::string fip = "1.2.3.4";
    static std::string mip = "10.0.0.1";
    static std::string sip = "10.0.0.2";
    const size_t framing = kFraming + std::strlen("mod7");
    const auto setUp = [](size_t length) {
        auto contenders = std::make_shared<Contenders>(2, false, 1, length);
        publish("mod7", 1);
        contenders->loggers[0]->init(7);
        return contenders;
    };
    addRow({"udp/binary module record", 1.10, 1, kSliceCalls, [=] {
                return besideRawSend(setUp(framing + 172), [](CLogger& logger) {
                    logger.write_modulelog(8, 9, fip, mip, sip, 0, 5, 30, 100, 200);
                });
            }});
    addRow({"udp/text module record", 1.25, 1, kSliceCalls, [=] {
                return besideRawSend(setUp(framing + 184), [](CLogger& logger) {
                    logger.write_modulelog_forIM(8, 9, fip, mip, sip, 0, 5, 30, 100, 200);
                });
            }});
}

/// A logger whose application has a rate for log type 5.
std::shared_ptr<CLogger> sampled(int rate) {
    const std::string name = "sampled";
    publish(name, rate);
    auto logger = std::make_shared<CLogger>(static_cast<int8_t>(2), false);
    logger->init(name);
    return logger;
}

void writeSampled(CLogger& logger, int calls) {
    for (int i = 0; i < calls; ++i) {
        logger.write_baselog("body", 4, 5, 0, kTime);
    }
}

void addSampledOut() {
    const auto emptyCalls = [](CLogger& logger, int calls) {
        for (int i = 0; i < calls; ++i) {
            logger.get_lock();
        }
    };
    const auto nothing = [] {};
    addRow({"sampled out by rate 255, beside 4 empty calls", 1, 1, 10000, [=] {
                const auto logger = sampled(255);
                return Pair{[=](int, int calls) {
                                for (int i = 0; i < calls; ++i) {
                                    emptyCalls(*logger, 4);
                                }
                            },
                            [=](int, int calls) { writeSampled(*logger, calls); }, nothing};
            }});
    // Every tenth decision, which rate 10 lets through, is made under a rate of 251 instead; the
    // one in 2510 that both let through is made between the slices.
    addRow(
        {"sampled out by rate 10, beside 3 empty calls, 2 increments and modulos", 1, 1, 2500, [=] {
             const auto logger = sampled(10);
             const auto counter = std::make_shared<std::atomic<uint32_t>>(0);
             return Pair{[=](int, int calls) {
                             volatile uint32_t rate = 10;
                             volatile uint32_t sink = 0;
                             for (int i = 0; i < calls; ++i) {
                                 emptyCalls(*logger, 3);
                                 for (int k = 0; k < 2; ++k) {
                                     sink = counter->fetch_add(1, std::memory_order_relaxed) % rate;
                                 }
                             }
                             (void)sink;
                         },
                         [=](int, int calls) {
                             for (int i = 0; i < calls / 10; ++i) {
                                 writeSampled(*logger, 9);
                                 logger->write_baselog("body", 4, kSpareType, 0, kTime);
                             }
                         },
                         [=, turn = std::make_shared<int>(0)] {
                             if (++*turn % 2 == 0) {
                                 writeSampled(*logger, 10);
                             }
                         }};
         }});
    addRow({"udp/sampled by rate 1 (sent)", 1.05, 1, kSliceCalls, [] {
                const auto logger = sampled(1);
                const auto contenders = std::make_shared<Contenders>(2, false, 1, kFraming + 7 + 4);
                const Pair raw = besideRawSend(contenders, [](CLogger&) {});
                return Pair{raw.reference,
                            [logger](int, int calls) { writeSampled(*logger, calls); }, raw.settle};
            }});
}

void addStatistics() {
    addRow({"write_statlogs, beside a plain nested map merge", 1.3, 1, 1000, [] {
                using Plain = std::map<std::string, std::map<std::string, int>>;
                const auto plain = std::make_shared<Plain>();
                const auto logger = std::make_shared<CLogger>();
                logger->init("benchmark");
                logger->set_stat(true, 5, 4000000000U, 1000000);
                const auto values = std::make_shared<std::map<std::string, int>>(
                    std::map<std::string, int>{{"count", 1}, {"failed", 2}, {"latency", 3}});
                const auto texts = std::make_shared<std::vector<std::string>>();
                for (int i = 0; i < 100; ++i) {
                    texts->push_back("interface=" + std::to_string(i) + "&host=10.0.0.1");
                }
                const auto now = static_cast<unsigned int>(time(nullptr));
                return Pair{[=](int, int calls) {
                                for (int i = 0; i < calls; ++i) {
                                    auto& stored = (*plain)[(*texts)[i % 100]];
                                    for (const auto& [name, value] : *values) {
                                        stored[name] += value;
                                    }
                                }
                            },
                            [=](int, int calls) {
                                for (int i = 0; i < calls; ++i) {
                                    logger->write_statlogs((*texts)[i % 100], *values,
                                                           Quorvel::QV_STAT_TYPE_SUM, now);
                                }
                            },
                            [] {}};
            }});
}

void addAgentAway() {
    addRow({"back-off in force, beside the fallback append alone", 1.05, 1, 200, [] {
                std::filesystem::create_directories("/data/qvagent");
                std::filesystem::remove("/data/qvagent/msgdat.dat");
                const auto logger = std::make_shared<CLogger>(static_cast<int8_t>(0), false);
                logger->init("benchmark");
                const std::string body(100, 'x');
                const std::string record(4 + kFraming + 9 + body.size(), 'x');
                // The connection attempt that each back-off ends with happens between slices.
                return Pair{[=](int, int calls) {
                                for (int i = 0; i < calls; ++i) {
                                    appendByHand(record);
                                }
                            },
                            [=](int, int calls) {
                                for (int i = 0; i < calls; ++i) {
                                    logger->write_baselog(body.data(), 100, 5, 0, kTime);
                                }
                            },
                            [=] { logger->write_baselog(body.data(), 100, 5, 0, kTime); }};
            }});
}

/// What taking turns alone costs two threads on one socket.
void addTurns(int transport) {
    addRow({"for comparison: " + std::string(kTransports[transport]) +
                "/raw send of 100 B in turns under a mutex/2 threads",
            0, 2, kSliceCalls, [=] {
                const auto contenders = applicationMode(transport, false, 1, 100);
                Pair pair = besideRawSend(contenders, [](CLogger&) {});
                pair.subject = rawSendInTurns(contenders);
                return pair;
            }});
}

/// What the allocation and the copy alone cost, without a library.
void addCopy(int transport) {
    addRow({"for comparison: " + std::string(kTransports[transport]) +
                "/raw send of 100 B, allocated, copied and released each time",
            0, 1, kSliceCalls, [=] {
                const auto contenders = applicationMode(transport, false, 1, 100);
                Pair pair = besideRawSend(contenders, [](CLogger&) {});
                pair.subject = [=](int /*thread*/, int calls) {
                    const int fd = contenders->socket(0);
                    const std::string& request = contenders->request;
                    for (int i = 0; i < calls; ++i) {
                        const std::unique_ptr<char[]> copy(new char[request.size()]);
                        std::memcpy(copy.get(), request.data(), request.size());
                        send(fd, copy.get(), request.size(), MSG_NOSIGNAL);
                    }
                };
                return pair;
            }});
}

void addOthers() {
    for (int transport = 0; transport < 3; ++transport) {
        addCopy(transport);
    }
    addTurns(0);
    addTurns(1);
    addRow(
        {"for comparison: syslog(3), 100 B, beside the raw send on the Unix stream", 0, 1, 50, [] {
             const auto contenders = applicationMode(0, false, 1, 100);
             const std::string body(100, 'x');
             return besideRawSend(contenders,
                                  [body](CLogger&) { syslog(LOG_INFO, "%s", body.c_str()); });
         }});
    addRow({"for comparison: UDP sink of spdlog, 100 B, beside the raw send over UDP", 0, 1,
            kSliceCalls, [] {
                const auto contenders = applicationMode(2, false, 1, 100);
                const auto sink = std::make_shared<spdlog::sinks::udp_sink_st>(
                    spdlog::sinks::udp_sink_config("127.0.0.1", 20005));
                const auto logger = std::make_shared<spdlog::logger>("benchmark", sink);
                logger->set_pattern("%v");
                const std::string body(100, 'x');
                return besideRawSend(contenders,
                                     [=](CLogger&) { logger->log(spdlog::level::info, body); });
            }});
}

}  // namespace

void addRecordRows() {
    for (int transport = 0; transport < 3; ++transport) {
        for (const size_t size : {100, 1000}) {
            addBaseLog(transport, size, false);
            addBaseLog(transport, size, true);
            addBaseLogOfThreads(transport, size, false);
            if (transport == 2) {
                addBaseLogOfThreads(transport, size, true);
            }
        }
        addOtherForms(transport);
    }
    for (const int transport : {0, 1}) {
        addBaseLogInTurns(transport, 1000, 2);
        for (const int threads : {2, 4, 8}) {
            addBaseLogInTurns(transport, 100, threads);
        }
    }
    addModuleRecords();
    addSampledOut();
    addStatistics();
    addAgentAway();
    addOthers();
}

}  // namespace bench
