// The reporter every benchmark program uses: console output as usual, plus
// each run's time per operation and user counters kept, so that the program
// can print its ratios and tables at the end.
//
// A run is known by its function name, its arguments when it has any
// ("BM_Commit/cache/16/1024") and its thread count. With
// --benchmark_repetitions the median stands for the repetitions.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qwbench {

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  struct Result {
    double nsPerOp = 0;  // real time per iteration
    std::map<std::string, double> counters;
  };

  // `labelWidth` pads the labels of PrintRatio so that the ratios line up.
  // Colours only on a terminal: saved output stays plain text.
  explicit SummaryReporter(int labelWidth = 28)
      : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular), labelWidth_(labelWidth) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.error_occurred || !(run.run_type == Run::RT_Iteration || run.aggregate_name == "median")) continue;
      Result &result = results_[{NameOf(run), run.threads}];
      result.nsPerOp = run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      for (const auto &[name, counter] : run.counters) result.counters[name] = counter.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The result of `name` on `threads` threads, or nullptr when it did not run
  // (filtered out, or failed).
  const Result *Find(const std::string &name, int64_t threads = 1) const {
    auto found = results_.find({name, threads});
    return found == results_.end() ? nullptr : &found->second;
  }

  // Prints "<label> (<n> thread[s]): <ours/peer>  (<ours> vs <peer>)" when
  // both ran; nothing otherwise.
  void PrintRatio(const char *label, const std::string &ours, const std::string &peer, int64_t threads) const {
    const Result *a = Find(ours, threads);
    const Result *b = Find(peer, threads);
    if (!a || !b) return;
    std::printf("%-*s (%lld thread%s): %.3f  (%s vs %s)\n", labelWidth_, label, static_cast<long long>(threads),
                threads == 1 ? "" : "s", a->nsPerOp / b->nsPerOp, FormatTime(a->nsPerOp).c_str(),
                FormatTime(b->nsPerOp).c_str());
  }

  // "1234.5 ns" below 10 us, then microseconds, then milliseconds.
  static std::string FormatTime(double ns) {
    char text[32];
    if (ns < 1e4)
      std::snprintf(text, sizeof text, "%.1f ns", ns);
    else if (ns < 1e7)
      std::snprintf(text, sizeof text, "%.1f us", ns / 1e3);
    else
      std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
    return text;
  }

 private:
  static std::string NameOf(const Run &run) {
    const benchmark::BenchmarkName &name = run.run_name;
    return name.args.empty() ? name.function_name : name.function_name + "/" + name.args;
  }

  int labelWidth_;
  std::map<std::pair<std::string, int64_t>, Result> results_;
};

// The main of every benchmark program: prepare, run with the summary
// reporter, print the summary, clean up. When prepare() fails, the text that
// prepareFailure() returns is printed and the program exits 1.
template <typename Prepare, typename Summary, typename Cleanup, typename Failure>
int RunWithSummary(int argc, char **argv, int labelWidth, Prepare prepare, Summary summary, Cleanup cleanup,
                   Failure prepareFailure) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  int status = 0;
  if (prepare()) {
    SummaryReporter reporter(labelWidth);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    summary(reporter);
  } else {
    std::fprintf(stderr, "%s\n", std::string(prepareFailure()).c_str());
    status = 1;
  }
  cleanup();
  benchmark::Shutdown();
  return status;
}

// The two access modes of an arena that the arena benchmarks compare.
struct ArenaMode {
  const char *name;
  uint32_t flags;
  int index;
};

}  // namespace qwbench
