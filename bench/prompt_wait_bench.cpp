// How long a reader waits past the moment its bytes are there.
//
// Cold small reads: a fresh cache over an in-process origin that answers at
// once reads 4 KiB at 512 sectors in a scattered order (no read-ahead), with
// fetch tasks on a four-thread queue as a client runs them. Counters: the
// median read's latency and the reads one thread completes per second. A
// reader that only looks for its sectors every few milliseconds shows here
// as a floor under every read.
//
// Idle release: InitCache and ReleaseCache of a cache directory with nothing
// open; the time ReleaseCache takes is how long the quota thread needs to
// stop.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "bench/paced_origin.h"
#include "bench/readonly_cache_bench.h"
#include "bench/scratch_dir.h"
#include "bench/worker_queue.h"
#include "cache/default_settings.h"
#include "cache/readonly_cache.h"
#include "korvcache.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long kSector = 524288;
constexpr long long kSectors = 512;
constexpr long long kSmallRead = 4096;

class SmallReadConfig : public ICacheConfig {
 public:
  unsigned long long GetQuota() override { return 1ull << 40; }
  _CACHECONFIG GetConfig() override { return kDefaultCacheConfig; }
};

void ColdSmallReads(benchmark::State& state) {
  ScratchDir dir;
  SmallReadConfig config;
  PacedOrigin origin(kSectors * kSector, std::chrono::nanoseconds(0), 0);
  std::vector<char> buffer(kSmallRead);
  std::vector<double> latencies;
  double seconds = 0;
  for (auto _ : state) {
    WorkerQueue queue(4);
    queue.Bind();
    auto cache = std::make_unique<ReadonlyCache>(dir.path(), "bench:small:file", origin.size(), &config);
    _READDATA rd{};
    rd.handle = std::make_shared<_FS_HANDLE>();
    rd.file_size = origin.size();
    rd.fetch = &origin;
    const Clock::time_point started = Clock::now();
    for (long long i = 0; i < kSectors; ++i) {
      // 257 is prime to 512: every sector once, never two neighbours in a
      // row, so no read is served by the previous one's fetch.
      const long long at = (i * 257 % kSectors) * kSector;
      rd.buffer = buffer.data();
      rd.offset = at;
      rd.size = kSmallRead;
      rd.transferred = 0;
      const Clock::time_point before = Clock::now();
      if (cache->Read(&rd) != kOk || rd.transferred != kSmallRead ||
          !PacedOrigin::Matches(buffer.data(), at, kSmallRead)) {
        state.SkipWithError(("wrong or short read at offset " + std::to_string(at)).c_str());
        break;
      }
      latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - before).count());
    }
    const double took = std::chrono::duration<double>(Clock::now() - started).count();
    state.SetIterationTime(took);
    seconds += took;
    queue.Unbind();
    queue.Drain();
    cache.reset();
  }
  if (latencies.empty()) return;
  std::nth_element(latencies.begin(), latencies.begin() + latencies.size() / 2, latencies.end());
  state.counters[kMedianMs] = latencies[latencies.size() / 2];
  state.counters[kReadsPerSecond] = static_cast<double>(kSectors * state.iterations()) / seconds;
}

void IdleRelease(benchmark::State& state) {
  ScratchDir dir;
  double total_ms = 0;
  for (auto _ : state) {
    ICache_V2* cache = nullptr;
    if (InitCache(dir.path().c_str(), 1ull << 30, &cache) != kOk) {
      state.SkipWithError("InitCache failed");
      break;
    }
    const Clock::time_point before = Clock::now();
    ReleaseCache(dir.path().c_str());
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - before).count();
    state.SetIterationTime(ms / 1000);
    total_ms += ms;
  }
  if (state.iterations() > 0) state.counters[kReleaseMs] = total_ms / static_cast<double>(state.iterations());
}

const bool registered = [] {
  benchmark::RegisterBenchmark(kColdSmallRead, ColdSmallReads)->Iterations(2)->UseManualTime()->Unit(
      benchmark::kMillisecond);
  benchmark::RegisterBenchmark(kIdleRelease, IdleRelease)->Iterations(10)->UseManualTime()->Unit(
      benchmark::kMillisecond);
  return true;
}();

}  // namespace
