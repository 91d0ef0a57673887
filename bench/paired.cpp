#include "paired.h"

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "agent.h"

namespace bench {
namespace {

const int kRounds = 400;
const int kWarmUpRounds = 50;

double now(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

struct Cost {
    double cpu;
    double elapsed;
};

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Threads that run slices at the same time; the first is the caller's own.
class Crew {
 public:
    explicit Crew(int threads) : m_costs(threads), m_starts(threads) {
        for (int i = 1; i < threads; ++i) {
            m_helpers.emplace_back([this, i] { help(i); });
        }
    }

    ~Crew() {
        m_slice = nullptr;
        ++m_turn;
        for (std::thread& helper : m_helpers) {
            helper.join();
        }
    }

    Cost run(const Slice& slice, int calls) {
        m_slice = &slice;
        m_calls = calls;
        m_done = 0;
        ++m_turn;
        work(0);
        while (m_done < static_cast<int>(m_costs.size())) {
            giveWay();
        }
        double cpu = 0;
        double end = 0;
        for (const Cost& cost : m_costs) {
            cpu += cost.cpu;
            end = std::max(end, cost.elapsed);
        }
        const double start = *std::min_element(m_starts.begin(), m_starts.end());
        const double total = calls * static_cast<double>(m_costs.size());
        return {cpu / total, (end - start) / total};
    }

 private:
    // Two threads have a processor each: spinning starts them at the same time.
    void giveWay() const {
        if (m_costs.size() > 2) {
            std::this_thread::yield();
        }
    }

    void help(int thread) {
        for (int turn = 1;; ++turn) {
            while (m_turn != turn) {
                giveWay();
            }
            if (m_slice == nullptr) {
                return;
            }
            work(thread);
        }
    }

    void work(int thread) {
        m_starts[thread] = now(CLOCK_MONOTONIC);
        const double cpu = now(CLOCK_THREAD_CPUTIME_ID);
        (*m_slice)(thread, m_calls);
        m_costs[thread] = {now(CLOCK_THREAD_CPUTIME_ID) - cpu, now(CLOCK_MONOTONIC)};
        ++m_done;
    }

    std::vector<Cost> m_costs;
    std::vector<double> m_starts;
    std::vector<std::thread> m_helpers;
    const Slice* m_slice = nullptr;
    int m_calls = 0;
    std::atomic<int> m_turn{0};
    std::atomic<int> m_done{0};
};

void run(benchmark::State& state, const Row& row) {
    const SenderApart apart(row.threads == 1);
    const Pair pair = row.setUp();
    Crew crew(row.threads);
    std::vector<double> referenceCpu;
    std::vector<double> cpu;
    std::vector<double> elapsed;
    std::vector<double> cpuRatio;
    std::vector<double> elapsedRatio;
    const auto take = [&](const Slice& slice) {
        const Cost cost = crew.run(slice, row.calls);
        pair.settle();
        return cost;
    };
    for (int i = 0; i < kWarmUpRounds; ++i) {
        take(pair.reference);
        take(pair.subject);
    }
    bool subjectFirst = false;
    for (auto iteration : state) {
        (void)iteration;
        const Cost first = take(subjectFirst ? pair.subject : pair.reference);
        const Cost second = take(subjectFirst ? pair.reference : pair.subject);
        const Cost reference = subjectFirst ? second : first;
        const Cost subject = subjectFirst ? first : second;
        subjectFirst = !subjectFirst;
        state.SetIterationTime(subject.elapsed / 1e9);
        referenceCpu.push_back(reference.cpu);
        cpu.push_back(subject.cpu);
        elapsed.push_back(subject.elapsed);
        cpuRatio.push_back(subject.cpu / reference.cpu);
        elapsedRatio.push_back(subject.elapsed / reference.elapsed);
    }
    state.counters["reference_cpu_ns"] = median(referenceCpu);
    state.counters["cpu_ns"] = median(cpu);
    state.counters["elapsed_ns"] = median(elapsed);
    state.counters["cpu_ratio"] = median(cpuRatio);
    state.counters["elapsed_ratio"] = median(elapsedRatio);
    state.counters["limit"] = row.limit;
    state.counters["threads"] = row.threads;
}

}  // namespace

void addRow(Row row) {
    const std::string name = row.name;
    benchmark::RegisterBenchmark(name.c_str(), run, std::move(row))
        ->UseManualTime()
        ->Iterations(kRounds);
}

}  // namespace bench
