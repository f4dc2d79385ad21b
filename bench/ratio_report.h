// The console table of Google Benchmark, followed by each of our figures
// divided by its baseline's from the same run. With --benchmark_repetitions
// the ratios are taken between medians (the machine may be shared, and the
// median resists a disturbed repetition); otherwise between single runs. On a
// shared machine add --benchmark_enable_random_interleaving=true, so that a
// change of load falls on both sides of a pair alike.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kalo_bench {

struct Pair {
  std::string what; // what is compared, for the printout
  std::string ours; // benchmark function names
  std::string baseline;
};

class RatioReporter : public benchmark::ConsoleReporter {
public:
  explicit RatioReporter(std::vector<Pair> pairs) : pairs_(std::move(pairs)) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
      if (run.error_occurred)
        continue;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median)
        continue;
      Figure &f = figures_[run.run_name.function_name];
      if (median || !f.median)
        f = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime(), median};
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nOurs / baseline, same run (%s):\n",
                any_median() ? "medians of the repetitions" : "single runs");
    std::printf("  %-26s %-28s %-30s %8s %8s\n", "", "ours", "baseline", "cpu", "real");
    for (const Pair &p : pairs_) {
      const auto a = figures_.find(p.ours), b = figures_.find(p.baseline);
      if (a == figures_.end() || b == figures_.end())
        continue;
      std::printf("  %-26s %-28s %-30s %7.2fx %7.2fx\n", p.what.c_str(), p.ours.c_str(),
                  p.baseline.c_str(), a->second.cpu / b->second.cpu,
                  a->second.real / b->second.real);
    }
    std::fflush(stdout);
  }

private:
  struct Figure {
    double cpu = 0, real = 0;
    bool median = false;
  };
  bool any_median() const {
    for (const auto &f : figures_)
      if (f.second.median)
        return true;
    return false;
  }
  std::vector<Pair> pairs_;
  std::map<std::string, Figure> figures_;
};

// The body of main: flags as usual, then the run with the ratios at the end.
inline int run_with_ratios(int argc, char **argv, std::vector<Pair> pairs) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  RatioReporter reporter(std::move(pairs));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

} // namespace kalo_bench
