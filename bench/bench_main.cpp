// Runs the benchmarks with the usual console output, then prints the figures
// that matter side by side: each warm cache read against pread of the same
// size, the cold read's fractions of the origin's cap, the cold small reads'
// latency and the time an idle ReleaseCache takes.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/readonly_cache_bench.h"

namespace {

// The middle value of `values` (the mean of the two middle ones for an even
// count); 0 when there are none.
double MedianOf(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// The console reporter, remembering the counters of every measured run and
// of every "median" aggregate (a benchmark whose repetitions are displayed as
// aggregates only shows the display reporter nothing else).
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      std::string key = run.run_name.function_name;
      if (!run.run_name.args.empty()) key += "/" + run.run_name.args;
      if (run.run_type == Run::RT_Iteration) {
        runs_[key].push_back(run.counters);
      } else if (run.aggregate_name == "median") {
        medians_[key] = run.counters;
      }
    }
  }

  // The values of `counter` in the measured runs of `key`, in run order.
  std::vector<double> Values(const std::string& key, const std::string& counter) const {
    std::vector<double> values;
    auto found = runs_.find(key);
    if (found == runs_.end()) return values;
    for (const benchmark::UserCounters& counters : found->second) {
      auto c = counters.find(counter);
      if (c != counters.end()) values.push_back(c->second.value);
    }
    return values;
  }

  // The median of `counter` over the runs of `key`, or its "median"
  // aggregate; 0 when there is neither.
  double Median(const std::string& key, const std::string& counter) const {
    std::vector<double> values = Values(key, counter);
    if (!values.empty()) return MedianOf(values);
    auto median = medians_.find(key);
    if (median == medians_.end()) return 0;
    auto c = median->second.find(counter);
    return c == median->second.end() ? 0 : c->second.value;
  }

 private:
  std::map<std::string, std::vector<benchmark::UserCounters>> runs_;
  std::map<std::string, benchmark::UserCounters> medians_;
};

// Throughput ratios of the runs of `key` to those of `base`, run by run: the
// i-th runs of both belong to one round and ran next to each other.
std::vector<double> PairedRatios(const CollectingReporter& reporter, const std::string& key,
                                 const std::string& base) {
  std::vector<double> top = reporter.Values(key, "bytes_per_second");
  std::vector<double> bottom = reporter.Values(base, "bytes_per_second");
  std::vector<double> ratios;
  for (size_t i = 0; i < top.size() && i < bottom.size(); ++i) {
    if (bottom[i] > 0) ratios.push_back(top[i] / bottom[i]);
  }
  return ratios;
}

std::string SizeText(long long bytes) {
  return bytes >= 1048576 ? std::to_string(bytes / 1048576) + " MiB" : std::to_string(bytes / 1024) + " KiB";
}

void PrintSummary(const CollectingReporter& reporter) {
  std::printf("\nSummary: throughputs (MiB/s) and ratios are medians over the rounds of this run\n");
  bool header = false;
  for (long long size : {4096LL, 131072LL, 1048576LL}) {
    const std::string cache_key = kWarmCache + ("/" + std::to_string(size));
    const std::string pread_key = kWarmPread + ("/" + std::to_string(size));
    const std::string nofetch_key = kWarmCacheNoFetch + ("/" + std::to_string(size));
    std::vector<double> ratios = PairedRatios(reporter, cache_key, pread_key);
    if (ratios.empty()) continue;
    if (!header) {
      std::printf("\nWarm reads of a cached 64 MiB file, ReadonlyCache::Read against pread of a local file:\n");
      std::printf("  %-8s %8s %8s %8s %12s %18s %14s\n", "request", "cache", "pread", "nofetch", "cache/pread",
                  "cache/pread range", "nofetch/pread");
      header = true;
    }
    std::printf("  %-8s %8.0f %8.0f %8.0f %12.2f %11.2f..%.2f %14.2f\n", SizeText(size).c_str(),
                reporter.Median(cache_key, "bytes_per_second") / 1048576,
                reporter.Median(pread_key, "bytes_per_second") / 1048576,
                reporter.Median(nofetch_key, "bytes_per_second") / 1048576, MedianOf(ratios),
                *std::min_element(ratios.begin(), ratios.end()), *std::max_element(ratios.begin(), ratios.end()),
                MedianOf(PairedRatios(reporter, nofetch_key, pread_key)));
  }

  const double cap = reporter.Median(kColdRead, kCapFraction);
  if (cap > 0) {
    std::printf("\nCold sequential read of %lld MiB in 1 MiB requests (origin: %d ms per request, %.0f MB/s):\n",
                kColdFileMiB, kOriginLatencyMs, kOriginCapBytesPerSecond / 1e6);
    const std::string after = "throughput / cap, after the first " + std::to_string(kRampMiB) + " MiB";
    std::printf("  %-44s %.3f\n", "throughput / cap, whole file", cap);
    std::printf("  %-44s %.3f\n", after.c_str(), reporter.Median(kColdRead, kRampedCapFraction));
    std::printf("  %-44s %.3f\n", "origin bytes fetched per byte read", reporter.Median(kColdRead, kFetchedPerRead));
    std::printf("  %-44s %.0f\n", "origin requests per pass", reporter.Median(kColdRead, kOriginRequests));
    std::printf("  %-44s %.0f (%.0f ms in all)\n", "reads per pass that waited over 1 ms",
                reporter.Median(kColdRead, kStalledReads), reporter.Median(kColdRead, kStalledMs));
  }
  const double median_ms = reporter.Median(kColdSmallRead, kMedianMs);
  if (median_ms > 0) {
    std::printf("\nCold 4 KiB reads at scattered sectors, origin answering at once, one reader thread:\n");
    std::printf("  %-44s %.2f\n", "median latency, ms", median_ms);
    std::printf("  %-44s %.0f\n", "reads per second", reporter.Median(kColdSmallRead, kReadsPerSecond));
  }
  const double release_ms = reporter.Median(kIdleRelease, kReleaseMs);
  if (release_ms > 0) std::printf("\nReleaseCache of an idle cache: %.2f ms\n", release_ms);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  ReleaseWarmFiles();
  PrintSummary(reporter);
  benchmark::Shutdown();
  return 0;
}
