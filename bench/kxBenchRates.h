// The best rate of every Google Benchmark run over its repetitions, kept for the ratio
// tables the query benchmarks print after the usual output.
#ifndef KXBENCHRATES_H
#define KXBENCHRATES_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace kxBench
{
/// Keeps the best rate of every benchmark over its repetitions, by name and thread count.
class RateReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
        {
            const auto it = run.counters.find("items_per_second");
            if (run.run_type != Run::RT_Iteration || it == run.counters.end())
                continue;
            double& best = mRates[run.run_name.function_name + "#" + std::to_string(run.threads)];
            best = std::max(best, it->second.value);
        }
        ConsoleReporter::ReportRuns(runs);
    }

    /// Items per second; 0 for a benchmark that did not run.
    double rate(const std::string& name, int threads = 1) const
    {
        const auto it = mRates.find(name + "#" + std::to_string(threads));
        return it == mRates.end() ? 0.0 : it->second;
    }

private:
    std::map<std::string, double> mRates;
};
} // namespace kxBench

#endif
