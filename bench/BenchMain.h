// The one main and reporter of the benchmarks. Each program compares the library with a bare
// baseline measured in the same run; the machine may be shared, so repetitions of every
// benchmark are interleaved and their medians compared. A program registers its benchmarks,
// then calls qel::bench::run with what it prints from the medians at the end.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qel::bench {

/// Prints as usual and keeps, for each benchmark, the median of its repetitions (or its only
/// run): seconds of real and of CPU time per iteration, and its counters. Benchmarks are named
/// by function, then "/args" when they have some, then "/threads".
class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const std::string name = key(run);
            if (run.error_occurred ||
                !(median || (run.run_type == Run::RT_Iteration && !kept_.count(name)))) {
                continue;
            }
            const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
            Kept& kept = kept_[name];
            kept.seconds = run.GetAdjustedRealTime() / unit;
            kept.cpuSeconds = run.GetAdjustedCPUTime() / unit;
            for (const auto& [counter, value] : run.counters) kept.counters[counter] = value.value;
        }
    }

    std::optional<double> seconds(const std::string& name, int threads = 1) const {
        const Kept* kept = find(name, threads);
        return kept ? std::optional<double>(kept->seconds) : std::nullopt;
    }
    /// All threads' CPU time over all their iterations: unlike the real time, it does not grow
    /// while other processes hold the cores.
    std::optional<double> cpuSeconds(const std::string& name, int threads = 1) const {
        const Kept* kept = find(name, threads);
        return kept ? std::optional<double>(kept->cpuSeconds) : std::nullopt;
    }
    std::optional<double> counter(const std::string& name, const std::string& counter,
                                  int threads = 1) const {
        const Kept* kept = find(name, threads);
        if (!kept || !kept->counters.count(counter)) return std::nullopt;
        return kept->counters.at(counter);
    }

private:
    struct Kept {
        double seconds = 0, cpuSeconds = 0;
        std::map<std::string, double> counters;
    };
    static std::string key(const Run& run) {
        std::string name = run.run_name.function_name;
        if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
        return name + "/" + std::to_string(run.threads);
    }
    const Kept* find(const std::string& name, int threads) const {
        const auto found = kept_.find(name + "/" + std::to_string(threads));
        return found == kept_.end() ? nullptr : &found->second;
    }
    std::map<std::string, Kept> kept_;
};

inline std::optional<double> divide(std::optional<double> a, std::optional<double> b) {
    if (!a || !b || *b == 0) return std::nullopt;
    return *a / *b;
}

/// "what   1.23x  (target <= 2x)", or nothing when a side did not run.
inline void printRatio(const char* what, std::optional<double> ratio,
                       const char* target = nullptr) {
    if (!ratio) return;
    std::printf("%-58s %8.2fx", what, *ratio);
    if (target) std::printf("  (target %s)", target);
    std::printf("\n");
}

/// Runs the registered benchmarks, `repetitions` times each, interleaved (flags given on the
/// command line win), then `report` with the medians. Returns main's exit status.
inline int run(int argc, char** argv, const std::function<void(const MedianReporter&)>& report,
               int repetitions = 9) {
    std::vector<std::string> defaults = {"--benchmark_repetitions=" + std::to_string(repetitions),
                                         "--benchmark_enable_random_interleaving=true",
                                         "--benchmark_display_aggregates_only=true",
                                         "--benchmark_min_time=0.2"};
    std::vector<char*> args{argv[0]};
    for (auto& flag : defaults) args.push_back(flag.data());
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nMedians of the repetitions:\n");
    report(reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace qel::bench
