// What the benchmark programs share: every figure is printed beside its limit, as a ratio measured in the
// same run, and the same operations can be counted in instructions under callgrind (scripts/callgrind),
// which this noisy machine cannot disturb.
#pragma once

#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Limits {

// One operation measured against its limit: the names of the two benchmarks, and the ratio the
// operation should stay within (0 when none is set).
struct Pair {
    std::string operation;
    std::string limit;
    double target;
};

// The console table, then each operation's time as a ratio to its limit's.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    explicit RatioReporter(std::vector<Pair> pairs) : pairs_(std::move(pairs)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
        benchmark::ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        benchmark::ConsoleReporter::Finalize();
        bool header = false;
        for (const Pair& p : pairs_) {
            auto op = times_.find(p.operation);
            auto limit = times_.find(p.limit);
            if (op == times_.end() || limit == times_.end() || limit->second <= 0) continue;
            if (!header) std::printf("\n%-36s %-36s %8s %8s\n", "operation", "limit", "ratio", "target");
            header = true;
            double ratio = op->second / limit->second;
            if (p.target > 0) {
                std::printf("%-36s %-36s %8.2f %8.2f%s\n", p.operation.c_str(), p.limit.c_str(), ratio, p.target,
                            ratio > p.target ? "  over" : "");
            } else {
                std::printf("%-36s %-36s %8.2f %8s\n", p.operation.c_str(), p.limit.c_str(), ratio, "-");
            }
        }
    }

private:
    std::vector<Pair> pairs_;
    std::map<std::string, double> times_;
};

// An operation as the instruction count sees it: one call of `run` is one operation.
struct Counted {
    std::string name;
    int repeat;
    std::function<void()> run;
};

// Runs each operation once to warm up, then `repeat` times with callgrind collecting, and dumps the
// counts under the operation's name with the repeat count ("name/repeat"). Outside callgrind the
// requests do nothing and this is a quick smoke run.
inline void CountInstructions(const std::vector<Counted>& operations) {
    for (const Counted& c : operations) {
        c.run();
        CALLGRIND_ZERO_STATS;
        CALLGRIND_TOGGLE_COLLECT;
        for (int i = 0; i < c.repeat; ++i) c.run();
        CALLGRIND_TOGGLE_COLLECT;
        std::string tag = c.name + "/" + std::to_string(c.repeat);
        CALLGRIND_DUMP_STATS_AT(tag.c_str());
    }
}

// `--instructions` counts the operations instead of timing them; anything else goes to the benchmark
// library, whose report ends with the ratios.
inline int Main(int argc, char** argv, const std::vector<Pair>& pairs, const std::vector<Counted>& operations) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--instructions") == 0) {
            CountInstructions(operations);
            return 0;
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter(pairs);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace Limits
