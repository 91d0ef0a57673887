// Runs the rows named by Google Benchmark's --benchmark_filter and prints two tables, or, with
// --json, Google Benchmark's JSON.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "rows.h"

namespace {

class TableReporter : public benchmark::BenchmarkReporter {
 public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            run.counters.count("p50_us") != 0 ? reportLatency(run) : reportCost(run);
        }
        std::fflush(stdout);
    }

 private:
    static std::string nameOf(const Run& run) {
        const std::string name = run.benchmark_name();
        return name.substr(0, name.find("/iterations:"));
    }

    void reportCost(const Run& run) {
        if (!m_costHead) {
            std::printf("%-78s %9s %9s %9s %7s %7s %6s\n", "medians; ratios to the reference",
                        "ref cpu", "cpu ns", "elapsed", "r(cpu)", "r(elap)", "limit");
            m_costHead = true;
        }
        const auto value = [&](const char* name) { return run.counters.at(name).value; };
        const double limit = value("limit");
        // CPU time is the steadier clock, but it hides that threads wait for one another.
        const double judged = value("threads") > 1
                                  ? std::max(value("cpu_ratio"), value("elapsed_ratio"))
                                  : value("cpu_ratio");
        const bool over = limit > 0 && judged > limit;
        std::printf("%-78s %9.1f %9.1f %9.1f %7.3f %7.3f %6.2f%s\n", nameOf(run).c_str(),
                    value("reference_cpu_ns"), value("cpu_ns"), value("elapsed_ns"),
                    value("cpu_ratio"), value("elapsed_ratio"), limit, over ? " over" : "");
    }

    void reportLatency(const Run& run) {
        if (!m_latencyHead) {
            std::printf("\n%-60s %9s %9s %9s %9s %10s\n", "microseconds", "calls", "p50", "p99",
                        "p99.9", "worst");
            m_latencyHead = true;
        }
        const auto value = [&](const char* name) { return run.counters.at(name).value; };
        std::printf("%-60s %9.0f %9.1f %9.1f %9.1f %10.1f\n", nameOf(run).c_str(), value("calls"),
                    value("p50_us"), value("p99_us"), value("p999_us"), value("worst_us"));
    }

    bool m_costHead = false;
    bool m_latencyHead = false;
};

}  // namespace

int main(int argc, char** argv) {
    std::string format = "--benchmark_format=json";
    std::vector<char*> arguments(argv, argv + argc);
    bool json = false;
    for (char*& argument : arguments) {
        if (std::strcmp(argument, "--json") == 0) {
            argument = format.data();
            json = true;
        }
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    bench::addRecordRows();
    bench::addLatencyRows();
    TableReporter table;
    json ? benchmark::RunSpecifiedBenchmarks() : benchmark::RunSpecifiedBenchmarks(&table);
    return 0;
}
