// Benchmarks of eviction: one clearing pass of a sector cache file as the
// file grows, and one measurement of a large cache directory.
//
// clear_old_cache/<sectors>/<valid bytes>: a ReadonlyCache is filled with
// <sectors> sectors through Reserve and FetchWrite, the first half of them,
// then the clock seam is stepped 1000 s forward, then the second half. The
// settings drop sectors older than 500 s, so ClearOldCache(false) selects the
// lower half of the slots and moves every sector of the upper half down, one
// read and one write of its valid bytes each, then cuts the file in half.
// Only that call is timed. With 524,288 valid bytes each sector is a whole
// slot of data; with 4,096 the slot's padding is punched out of the file
// after each batch of writes, so the 16,384-sector case occupies 64 MiB of
// disk instead of 8 GiB, and the pass times the index work and small moves.
// A case whose file would not fit into the free space (with a margin) is
// skipped with a message.
//
// measure_directory/<files>: the cache directory measurement of the quota
// manager (opendir, readdir, stat of every entry and a sum of the sizes),
// replicated here over a directory of <files> small files.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/scratch_dir.h"
#include "cache/default_settings.h"
#include "cache/readonly_cache.h"
#include "common/clock.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long kSlot = 524288;
// Sectors written between two hole punches of the sparse cases.
constexpr long long kPunchBatch = 256;
// Free space kept beyond what a case writes.
constexpr unsigned long long kSpaceMargin = 1ull << 30;

// Default settings, except that sectors older than 500 s go.
class EvictionConfig : public ICacheConfig {
 public:
  unsigned long long GetQuota() override { return 1ull << 40; }
  _CACHECONFIG GetConfig() override {
    _CACHECONFIG config = kDefaultCacheConfig;
    config.clrused = 500;
    config.clrunused = 500;
    config.clroverused = 500;
    config.clroverunused = 500;
    return config;
  }
};

unsigned long long FreeBytes(const std::string& path) {
  struct statvfs fs {};
  if (statvfs(path.c_str(), &fs) != 0) return 0;
  return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
}

// Frees the padding of the slots [first, end): everything after each slot's
// `valid` bytes. False when the file system cannot punch holes.
bool PunchPadding(const std::string& path, long long first, long long end, long long valid) {
#if defined(__linux__) && defined(FALLOC_FL_PUNCH_HOLE)
  int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) return false;
  bool ok = true;
  for (long long slot = first; slot < end && ok; ++slot) {
    ok = fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(slot * kSlot + valid),
                   static_cast<off_t>(kSlot - valid)) == 0;
  }
  close(fd);
  return ok;
#else
  (void)path, (void)first, (void)end, (void)valid;
  return false;
#endif
}

// Fetches the sectors [first, end) into `cache` as a fetch task would: each
// is reserved, then written in one piece of `valid` bytes.
bool Fill(ReadonlyCache& cache, const std::vector<char>& piece, long long first, long long end, long long valid) {
  if (cache.Reserve(first * kSlot, (end - first) * kSlot) != kOk) return false;
  const bool sparse = valid < kSlot;
  long long batch_start = first;
  for (long long sector = first; sector < end; ++sector) {
    long written = 0;
    if (cache.FetchWrite(sector * kSlot, piece.data(), static_cast<long>(valid), &written) != kOk) return false;
    if (sparse && (sector + 1 - batch_start == kPunchBatch || sector + 1 == end)) {
      if (!PunchPadding(cache.GetCachePath(), batch_start, sector + 1, valid)) return false;
      batch_start = sector + 1;
    }
  }
  return true;
}

void ClearOldCachePass(benchmark::State& state) {
  const long long sectors = state.range(0);
  const long long valid = state.range(1);
  const long long half = sectors / 2;
  ScratchDir dir;
  if (dir.path().empty()) {
    state.SkipWithError("no scratch directory");
    return;
  }
  // The sparse cases hold at most one batch of padding at a time.
  const unsigned long long needed =
      static_cast<unsigned long long>(valid < kSlot ? sectors * valid + kPunchBatch * kSlot : sectors * kSlot);
  if (FreeBytes(dir.path()) < needed + kSpaceMargin) {
    state.SkipWithError("skipped: the cache file does not fit into the free space");
    return;
  }
  std::vector<char> piece(static_cast<size_t>(valid));
  for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<char>(i * 131 + 7);
  EvictionConfig config;
  double total_seconds = 0;
  long long passes = 0;
  for (auto _ : state) {
    ReadonlyCache cache(dir.path(), "bench:evict:file", sectors * kSlot, &config);
    if (!Fill(cache, piece, 0, half, valid)) {
      state.SkipWithError("filling the first half failed (or holes cannot be punched)");
      break;
    }
    AdvanceClockForTesting(std::chrono::seconds(1000));
    if (!Fill(cache, piece, half, sectors, valid)) {
      state.SkipWithError("filling the second half failed (or holes cannot be punched)");
      break;
    }
    const Clock::time_point start = Clock::now();
    cache.ClearOldCache(false);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.SetIterationTime(seconds);
    if (cache.GetFileSize() != half * kSlot) {
      state.SkipWithError("the pass did not leave the newer half");
      break;
    }
    total_seconds += seconds;
    ++passes;
  }
  ResetClockForTesting();
  if (passes == 0) return;
  state.counters["sectors"] = static_cast<double>(sectors);
  state.counters["moved"] = static_cast<double>(sectors - half);
  state.counters["us_per_moved"] = total_seconds / passes * 1e6 / static_cast<double>(sectors - half);
}

// Sum of the sizes of the entries of `dir`, as the quota manager measures it.
long long MeasureLikeTheQuotaManager(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return 0;
  long long total = 0;
  while (dirent* entry = readdir(d)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    struct stat st {};
    if (stat((dir + "/" + entry->d_name).c_str(), &st) == 0) total += st.st_size;
  }
  closedir(d);
  return total;
}

void MeasureDirectory(benchmark::State& state) {
  const long long files = state.range(0);
  ScratchDir dir;
  if (dir.path().empty()) {
    state.SkipWithError("no scratch directory");
    return;
  }
  const std::string path = dir.path().substr(0, dir.path().size() - 1);
  for (long long i = 0; i < files; ++i) {
    FILE* f = std::fopen((path + "/" + std::to_string(i) + ".cache").c_str(), "wb");
    if (f == nullptr) {
      state.SkipWithError("creating the files failed");
      return;
    }
    std::fputs("x", f);
    std::fclose(f);
  }
  const Clock::time_point start = Clock::now();
  long long passes = 0;
  for (auto _ : state) {
    long long total = MeasureLikeTheQuotaManager(path);
    if (total != files) {
      state.SkipWithError("wrong total");
      return;
    }
    benchmark::DoNotOptimize(total);
    ++passes;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (passes > 0) state.counters["us_per_entry"] = seconds / static_cast<double>(passes * files) * 1e6;
}

[[maybe_unused]] const bool registered = [] {
  benchmark::RegisterBenchmark("clear_old_cache", ClearOldCachePass)
      ->Args({64, kSlot})
      ->Args({1024, kSlot})
      ->Args({64, 4096})
      ->Args({1024, 4096})
      ->Args({16384, 4096})
      ->Iterations(1)
      ->Repetitions(3)
      ->ReportAggregatesOnly(true)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("measure_directory", MeasureDirectory)
      ->Arg(10000)
      ->MinTime(0.5)
      ->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace
