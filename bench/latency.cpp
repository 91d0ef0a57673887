// How long one call takes: the distribution, from 1 and from 8 threads on one locked logger over
// the Unix-domain stream, with agents in good and bad health.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent.h"
#include "qvapi_cpp.h"
#include "raw_append.h"
#include "rows.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

const auto kDuration = std::chrono::seconds(8);

enum class Health { kHealthy, kSlow, kStopped, kAway };

std::vector<double> timeCalls(const std::function<void()>& call) {
    std::vector<double> times;
    for (const auto end = Clock::now() + kDuration;;) {
        const auto start = Clock::now();
        call();
        const auto finished = Clock::now();
        times.push_back(std::chrono::duration<double, std::micro>(finished - start).count());
        if (finished >= end) {
            break;
        }
    }
    return times;
}

std::string threadsOf(int threads) {
    return ", " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
}

double percentile(const std::vector<double>& sorted, double part) {
    return sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

void removeFallbackFile() {
    std::filesystem::create_directories("/data/qvagent");
    std::filesystem::remove("/data/qvagent/msgdat.dat");
}

void run(benchmark::State& state, int threads, const std::function<void()>& call) {
    std::vector<std::vector<double>> measured(static_cast<size_t>(threads));
    for (auto iteration : state) {
        (void)iteration;
        std::vector<std::thread> writers;
        writers.reserve(measured.size());
        for (auto& times : measured) {
            writers.emplace_back([&] { times = timeCalls(call); });
        }
        for (std::thread& writer : writers) {
            writer.join();
        }
    }
    std::vector<double> times;
    for (const auto& one : measured) {
        times.insert(times.end(), one.begin(), one.end());
    }
    std::sort(times.begin(), times.end());
    state.counters["calls"] = static_cast<double>(times.size());
    state.counters["p50_us"] = percentile(times, 0.5);
    state.counters["p99_us"] = percentile(times, 0.99);
    state.counters["p999_us"] = percentile(times, 0.999);
    state.counters["worst_us"] = times.back();
}

void runLogger(benchmark::State& state, Health health, int threads) {
    removeFallbackFile();
    std::filesystem::remove("/data/container2host/cqv");
    std::unique_ptr<Agent> agent;
    if (health != Health::kAway) {
        agent = std::make_unique<Agent>(health == Health::kSlow ? Pace::kSlow : Pace::kDiscard);
    }
    if (health == Health::kStopped) {
        agent->stop();
    }
    Quorvel::CLogger logger;
    logger.init("benchmark");
    const std::string body(100, 'x');
    run(state, threads, [&] { logger.write_baselog(body.data(), 100, 5, 0, 1400000000); });
}

void runRawAppend(benchmark::State& state, int threads) {
    removeFallbackFile();
    const std::string record(131, 'x');
    run(state, threads, [&] { appendByHand(record); });
}

}  // namespace

void addLatencyRows() {
    const std::pair<Health, const char*> kinds[] = {
        {Health::kHealthy, "an agent in good health"},
        {Health::kSlow, "an agent that reads 4 KiB each millisecond"},
        {Health::kStopped, "a stopped agent"},
        {Health::kAway, "no agent"}};
    for (const auto& [health, text] : kinds) {
        for (const int threads : {1, 8}) {
            const std::string name = "one call, " + std::string(text) + threadsOf(threads);
            benchmark::RegisterBenchmark(name.c_str(), runLogger, health, threads)->Iterations(1);
        }
    }
    for (const int threads : {1, 8}) {
        const std::string name = "for comparison: the fallback append alone" + threadsOf(threads);
        benchmark::RegisterBenchmark(name.c_str(), runRawAppend, threads)->Iterations(1);
    }
}

}  // namespace bench
