// Side-by-side ratios for the benchmarks: each benchmark program names the pairs it compares
// (the project's case and its in-run baseline) and calls zel_bench::run from main. Every
// benchmark runs and reports as usual; at exit one line per pair states the ratio:
//
//   ratio: <case> = <x>  (<project> vs <baseline>, <meaning>)
//
// A pair of kind kThroughput states project rate over baseline rate (items/s when both report
// items, else iterations per second of real time): above 1, the project is faster. A pair of kind
// kTime states project time over baseline time (round trips): below 1, the project is faster.
// With --benchmark_repetitions the ratio is taken between the medians of the repetitions (do not
// pass --benchmark_report_aggregates_only: the ratios are computed from the repetitions).
// scripts/bench.sh runs a program several times and prints the median of each ratio.
#ifndef ZEL_BENCH_RATIO_H_
#define ZEL_BENCH_RATIO_H_

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace zel_bench {

enum class Kind { kThroughput, kTime };

struct Pair {
  std::string label;     // the case, e.g. "lookup/1e6"
  std::string project;   // full benchmark name of the project's side, e.g. "BM_kro_lookup/1000000"
  std::string baseline;  // full benchmark name of the baseline
  Kind kind = Kind::kThroughput;
};

// Records the rate of every run (its repetitions' median) besides printing as the console does.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(OutputOptions options) : ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred) {
        if (r.error_occurred) {
          failed_[r.run_name.str()] = true;
        }
        continue;
      }
      double rate = 0;
      auto it = r.counters.find("items_per_second");
      if (it != r.counters.end()) {
        rate = it->second.value;
      } else if (r.real_accumulated_time > 0) {
        rate = static_cast<double>(r.iterations) / r.real_accumulated_time;
      }
      rates_[r.run_name.str()].push_back(rate);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  bool seen(const std::string &name) const {
    return rates_.count(name) != 0 || failed_.count(name) != 0;
  }

  // Median rate of the named benchmark; 0 when it did not run or failed.
  double rate(const std::string &name) const {
    auto it = rates_.find(name);
    if (it == rates_.end() || it->second.empty() || failed_.count(name) != 0) {
      return 0;
    }
    std::vector<double> v = it->second;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
  }

 private:
  std::map<std::string, std::vector<double>> rates_;
  std::map<std::string, bool> failed_;
};

// Runs the registered benchmarks and prints the ratio of each pair, the report and the ratios
// to `out` (standard output when NULL). Returns the exit status: 1 when a pair could not be
// measured (a side failed).
inline int run(int argc, char **argv, const std::vector<Pair> &pairs, std::ostream *out = nullptr) {
  // Colour as the library's own reporter would: on a terminal, unless --benchmark_color says no.
  bool color = out == nullptr && isatty(STDOUT_FILENO) != 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--benchmark_color=false" || arg == "--benchmark_color=no") {
      color = false;
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  RatioReporter reporter(color ? benchmark::ConsoleReporter::OO_Defaults
                               : benchmark::ConsoleReporter::OO_Tabular);
  if (out != nullptr) {
    reporter.SetOutputStream(out);
    reporter.SetErrorStream(&std::cerr);
  }
  std::ostream &os = out != nullptr ? *out : std::cout;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  int status = 0;
  os << "\n";
  char line[1024];
  for (const Pair &p : pairs) {
    if (!reporter.seen(p.project) || !reporter.seen(p.baseline)) {
      continue;  // a side filtered out
    }
    const double ours = reporter.rate(p.project);
    const double peer = reporter.rate(p.baseline);
    if (ours <= 0 || peer <= 0) {
      std::snprintf(line, sizeof line, "ratio: %s = n/a  (%s vs %s: not measured)\n",
                    p.label.c_str(), p.project.c_str(), p.baseline.c_str());
      status = 1;
    } else if (p.kind == Kind::kThroughput) {
      std::snprintf(line, sizeof line,
                    "ratio: %s = %.3f  (%s vs %s, project/baseline throughput, >1 faster)\n",
                    p.label.c_str(), ours / peer, p.project.c_str(), p.baseline.c_str());
    } else {
      std::snprintf(line, sizeof line,
                    "ratio: %s = %.3f  (%s vs %s, project/baseline time, <1 faster)\n",
                    p.label.c_str(), peer / ours, p.project.c_str(), p.baseline.c_str());
    }
    os << line;
  }
  os.flush();
  return status;
}

}  // namespace zel_bench

#endif  // ZEL_BENCH_RATIO_H_
