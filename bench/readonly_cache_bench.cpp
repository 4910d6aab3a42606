// Benchmarks of the sector cache's read path.
//
// Warm reads: a 64 MiB file is cached completely, then read through
// ReadonlyCache::Read in requests of 4 KiB, 128 KiB and 1 MiB, sequentially
// and wrapping around; the same requests are made with pread on a local file
// of the same bytes, which the page cache holds. The reads pass the fetcher
// as a client does, so each one also goes through the queueing phase (which
// finds everything present); the cache_nofetch rows leave it out and time
// only the copy phase, to show what the queueing phase costs.
//
// Cold read: a fresh cache reads a 256 MiB file from a paced origin (2 ms per
// request, 400 MB/s shared link, 512 KiB pieces) sequentially in 1 MiB
// requests, with fetch tasks on a four-thread queue. Counters: throughput as
// a fraction of the link's cap, for the whole file and for the part after
// the first 64 MiB (by then read-ahead blocks have grown to 32 MiB and
// more); origin bytes delivered per byte read; origin requests; reads that
// had to wait (over 1 ms) and their total wait.
#include "bench/readonly_cache_bench.h"

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/paced_origin.h"
#include "bench/scratch_dir.h"
#include "bench/worker_queue.h"
#include "cache/default_settings.h"
#include "cache/readonly_cache.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long kMiB = 1048576;
constexpr long long kWarmFileSize = 64 * kMiB;
constexpr long long kColdFileSize = kColdFileMiB * kMiB;
constexpr long long kColdRequest = kMiB;
constexpr int kQueueWorkers = 4;
// A read that takes longer than this waited for the origin.
constexpr auto kStallThreshold = std::chrono::milliseconds(1);

// The default settings, and a storage limit far above anything read here, so
// that the quota never holds read-ahead back.
class BenchConfig : public ICacheConfig {
 public:
  unsigned long long GetQuota() override { return 1ull << 32; }
  _CACHECONFIG GetConfig() override { return kDefaultCacheConfig; }
};

_READDATA MakeRequest(long long file_size, IFetch* fetch) {
  _READDATA rd{};
  rd.handle = std::make_shared<_FS_HANDLE>();
  rd.file_size = file_size;
  rd.fetch = fetch;
  rd.timeout = 0;
  rd.whole_file = false;
  return rd;
}

// The 64 MiB file of the warm reads, both fully cached in a ReadonlyCache and
// as a plain local file, created on first use and shared by every warm-read
// benchmark.
class WarmFiles {
 public:
  WarmFiles() : origin_(kWarmFileSize, std::chrono::nanoseconds(0), 0) {}
  ~WarmFiles() {
    cache_.reset();
    if (fd_ >= 0) ::close(fd_);
  }
  WarmFiles(const WarmFiles&) = delete;
  WarmFiles& operator=(const WarmFiles&) = delete;

  // Empty on success, else what went wrong.
  std::string Prepare() {
    if (dir_.path().empty()) return "cannot create a scratch directory";
    const std::string local = dir_.path() + "local.bin";
    if (!origin_.WriteFile(local)) return "cannot write " + local;
    fd_ = ::open(local.c_str(), O_RDONLY);
    if (fd_ < 0) return "cannot open " + local;
    for (long long at = 0; at < kWarmFileSize; at += kMiB) {  // into the page cache
      if (::pread(fd_, buffer_.data(), kMiB, at) != kMiB) return "cannot read " + local;
    }

    // No queue is bound here: the fetches run on this thread, inline.
    cache_ = std::make_unique<ReadonlyCache>(dir_.path(), "bench:warm:file", kWarmFileSize, &config_);
    _READDATA rd = MakeRequest(kWarmFileSize, &origin_);
    for (long long at = 0; at < kWarmFileSize; at += kMiB) {
      rd.buffer = buffer_.data();
      rd.offset = at;
      rd.size = kMiB;
      rd.transferred = 0;
      if (cache_->Read(&rd) != kOk || rd.transferred != static_cast<unsigned long long>(kMiB) ||
          !PacedOrigin::Matches(buffer_.data(), at, kMiB)) {
        return "filling the cache failed at offset " + std::to_string(at);
      }
    }
    if (cache_->GetFileSize() != kWarmFileSize) return "the cache file is not the file's size";
    origin_.ResetCounters();
    return "";
  }

  ReadonlyCache* cache() { return cache_.get(); }
  // The destination of every warm read. One buffer for all of them, so that
  // where the kernel placed its pages (huge or not) weighs on both sides alike.
  char* buffer() { return buffer_.data(); }
  PacedOrigin* origin() { return &origin_; }
  int fd() const { return fd_; }

 private:
  ScratchDir dir_;
  BenchConfig config_;
  PacedOrigin origin_;
  std::unique_ptr<ReadonlyCache> cache_;
  std::vector<char> buffer_ = std::vector<char>(kMiB);
  int fd_ = -1;
};

std::unique_ptr<WarmFiles> warm_files;
std::string warm_error;

WarmFiles* GetWarmFiles() {
  if (!warm_files && warm_error.empty()) {
    auto files = std::make_unique<WarmFiles>();
    warm_error = files->Prepare();
    if (warm_error.empty()) warm_files = std::move(files);
  }
  return warm_files.get();
}

enum class WarmPath { kCache, kCacheNoFetch, kPread };

void WarmRead(benchmark::State& state, WarmPath path) {
  WarmFiles* files = GetWarmFiles();
  if (files == nullptr) {
    state.SkipWithError(warm_error.c_str());
    for (auto _ : state) {
    }
    return;
  }
  const long long size = state.range(0);
  char* const buffer = files->buffer();
  _READDATA rd = MakeRequest(kWarmFileSize, path == WarmPath::kCache ? files->origin() : nullptr);
  const long long fetches_before = files->origin()->Requests();
  long long offset = 0;
  for (auto _ : state) {
    bool ok;
    if (path == WarmPath::kPread) {
      ok = ::pread(files->fd(), buffer, static_cast<size_t>(size), offset) == size;
    } else {
      rd.buffer = buffer;
      rd.offset = offset;
      rd.size = static_cast<unsigned long long>(size);
      rd.transferred = 0;
      ok = files->cache()->Read(&rd) == kOk && rd.transferred == static_cast<unsigned long long>(size);
    }
    if (!ok || !PacedOrigin::Matches(buffer, offset, size)) {
      state.SkipWithError(("wrong or short read at offset " + std::to_string(offset)).c_str());
      break;
    }
    offset += size;
    if (offset + size > kWarmFileSize) offset = 0;
  }
  if (files->origin()->Requests() != fetches_before) {
    state.SkipWithError("a warm read went to the origin");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

void ColdSequentialRead(benchmark::State& state) {
  ScratchDir dir;
  if (dir.path().empty()) {
    state.SkipWithError("cannot create a scratch directory");
    for (auto _ : state) {
    }
    return;
  }
  BenchConfig config;
  PacedOrigin origin(kColdFileSize, std::chrono::milliseconds(kOriginLatencyMs), kOriginCapBytesPerSecond);
  std::vector<char> buffer(kColdRequest);
  double seconds = 0;
  double ramped_seconds = 0;
  long long bytes = 0;
  long long ramped_bytes = 0;
  long long delivered = 0;
  long long requests = 0;
  long long stalled_reads = 0;
  double stalled_seconds = 0;

  for (auto _ : state) {
    origin.ResetCounters();
    WorkerQueue queue(kQueueWorkers);
    queue.Bind();
    auto cache = std::make_unique<ReadonlyCache>(dir.path(), "bench:cold:file", kColdFileSize, &config);
    _READDATA rd = MakeRequest(kColdFileSize, &origin);
    const Clock::time_point started = Clock::now();
    Clock::time_point ramped = started;
    bool failed = false;
    for (long long at = 0; at < kColdFileSize; at += kColdRequest) {
      if (at == kRampMiB * kMiB) ramped = Clock::now();
      rd.buffer = buffer.data();
      rd.offset = at;
      rd.size = kColdRequest;
      rd.transferred = 0;
      const Clock::time_point before = Clock::now();
      if (cache->Read(&rd) != kOk || rd.transferred != static_cast<unsigned long long>(kColdRequest) ||
          !PacedOrigin::Matches(buffer.data(), at, kColdRequest)) {
        state.SkipWithError(("wrong or short read at offset " + std::to_string(at)).c_str());
        failed = true;
        break;
      }
      const Clock::duration took = Clock::now() - before;
      if (took > kStallThreshold) {
        ++stalled_reads;
        stalled_seconds += std::chrono::duration<double>(took).count();
      }
    }
    const Clock::time_point finished = Clock::now();
    // The cache's destructor waits for its fetch tasks: let them all end
    // first, with the queue unbound so that nothing new reaches it.
    queue.Unbind();
    queue.Drain();
    cache.reset();
    if (failed) break;

    const double took = std::chrono::duration<double>(finished - started).count();
    state.SetIterationTime(took);
    seconds += took;
    ramped_seconds += std::chrono::duration<double>(finished - ramped).count();
    bytes += kColdFileSize;
    ramped_bytes += kColdFileSize - kRampMiB * kMiB;
    delivered += origin.BytesDelivered();
    requests += origin.Requests();
  }
  if (bytes == 0) return;
  const double runs = static_cast<double>(state.iterations());
  state.SetBytesProcessed(bytes);
  state.counters[kCapFraction] = static_cast<double>(bytes) / seconds / kOriginCapBytesPerSecond;
  state.counters[kRampedCapFraction] =
      static_cast<double>(ramped_bytes) / ramped_seconds / kOriginCapBytesPerSecond;
  state.counters[kFetchedPerRead] = static_cast<double>(delivered) / static_cast<double>(bytes);
  state.counters[kOriginRequests] = static_cast<double>(requests) / runs;
  state.counters[kStalledReads] = static_cast<double>(stalled_reads) / runs;
  state.counters[kStalledMs] = stalled_seconds * 1000 / runs;
}

// Rounds of the warm reads. Each round runs every (request size, path) pair
// once, size by size, so that the rows compared run next to each other and
// drift in the machine's load (other programs, the host) hits both sides;
// the summary pairs the rows round by round and takes the median.
constexpr int kWarmRounds = 5;

// Registered by hand rather than with the BENCHMARK macros, to give the warm
// rows names the summary can pair and to interleave the rounds. The cold read
// takes about 0.8 s a pass: two passes per repetition, three repetitions.
const bool registered = [] {
  for (int round = 0; round < kWarmRounds; ++round) {
    for (long long size : {4096LL, 128 * 1024LL, kMiB}) {
      benchmark::RegisterBenchmark(kWarmCache, WarmRead, WarmPath::kCache)->Arg(size)->MinTime(0.2);
      benchmark::RegisterBenchmark(kWarmPread, WarmRead, WarmPath::kPread)->Arg(size)->MinTime(0.2);
      benchmark::RegisterBenchmark(kWarmCacheNoFetch, WarmRead, WarmPath::kCacheNoFetch)->Arg(size)->MinTime(0.2);
    }
  }
  benchmark::RegisterBenchmark(kColdRead, ColdSequentialRead)
      ->Iterations(2)
      ->Repetitions(3)
      ->DisplayAggregatesOnly(true)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace

void ReleaseWarmFiles() { warm_files.reset(); }
