// Eviction of the sector cache: which sectors age out, how the survivors are
// packed down, and how the file shrinks and finally goes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "cache/default_settings.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "cache/timed_handle.h"
#include "common/clock.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kMiB = 1048576;
constexpr long long kHalf = kSectorSize;

void Age(long long seconds) { AdvanceClockForTesting(std::chrono::seconds(seconds)); }

class SectorEvictionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    SetAges(1000000, 1000000, 1000000, 1000000);
  }
  void TearDown() override { ResetClockForTesting(); }
  std::string Dir() const { return dir_.path() + "/"; }

  void SetAges(uint64_t used, uint64_t unused, uint64_t over_used, uint64_t over_unused) {
    _CACHECONFIG conf = kDefaultCacheConfig;
    conf.clrused = used;
    conf.clrunused = unused;
    conf.clroverused = over_used;
    conf.clroverunused = over_unused;
    conf.ramax = kMiB;
    config_.Set(conf);
  }

  // Caches `length` origin bytes of the sector at `offset` as a fetch does:
  // reserved now, then written; unread.
  // The file is opened first, as a read does: reservations made before it
  // exists would be dropped as the index of a deleted file.
  static void Put(ReadonlyCache& cache, long long offset, long long length = kSectorSize) {
    cache.GetFileSize();
    ASSERT_EQ(cache.Reserve(offset, kSectorSize), kOk);
    std::vector<char> bytes(static_cast<size_t>(length));
    for (long long i = 0; i < length; ++i) bytes[static_cast<size_t>(i)] = FakeOrigin::ByteAt(offset + i);
    ASSERT_EQ(cache.FetchWrite(offset, bytes.data(), static_cast<long>(length), nullptr), 0);
  }

  // Bytes served from the cache alone at `offset`, checked against the origin.
  static long long CachedBytes(ReadonlyCache& cache, long long offset, long long length) {
    std::vector<char> buffer(static_cast<size_t>(length));
    _READDATA rd{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), 0, nullptr, 0, false};
    if (cache.Read(&rd) != kOk) return -1;
    if (FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)) != -1) return -2;
    return static_cast<long long>(rd.transferred);
  }

  TempDir dir_;
  FakeConfig config_;
};

TEST_F(SectorEvictionTest, SelectionByAgeUseAndReservation) {
  RecordingLog log;
  ReadonlyCache cache(Dir(), "select.bin", 8 * kMiB, &config_);
  Put(cache, 0);
  ASSERT_EQ(CachedBytes(cache, 0, 100), 100);  // sector 0 is used
  Put(cache, kHalf);                           // sector 1 is not
  ASSERT_EQ(cache.Reserve(kMiB, kHalf), kOk);  // sector 2 is still on its way
  SetAges(100, 1000, 10, 50);

  // Ages are compared strictly, in whole seconds.
  Age(100);
  cache.ClearOldCache(false);
  EXPECT_FALSE(log.Contains("ClearOldCache"));
  Age(1);
  cache.ClearOldCache(false);
  EXPECT_TRUE(log.Contains("ClearOldCache : 1 sector(s) will clear(total 3 sector(s))"));
  EXPECT_EQ(CachedBytes(cache, 0, 100), 0);

  // Over the quota the shorter ages apply; the unread sector goes too.
  cache.ClearOldCache(true);
  EXPECT_TRUE(log.Contains("ClearOldCache : 1 sector(s) will clear(total 2 sector(s))"));
  // A reservation never ages out.
  log.Clear();
  Age(1000000);
  cache.ClearOldCache(true);
  cache.ClearOldCache(false);
  EXPECT_FALSE(log.Contains("ClearOldCache"));
  EXPECT_EQ(cache.Reserve(kMiB, kHalf), kNothingReserved);
  EXPECT_EQ(cache.ClearReserved(kMiB, kHalf), kOk);

  // Any sector older than the unused age goes, even a used one younger than
  // the used age.
  ReadonlyCache other(Dir(), "used.bin", 8 * kMiB, &config_);
  Put(other, 0);
  Put(other, kHalf);
  ASSERT_EQ(CachedBytes(other, 0, kMiB), kMiB);  // both used
  SetAges(1000, 100, 1000, 1000);
  Age(101);
  ASSERT_EQ(CachedBytes(other, kHalf, 100), 100);  // sector 1 is young again
  log.Clear();
  other.ClearOldCache(false);
  EXPECT_TRUE(log.Contains("ClearOldCache : 1 sector(s) will clear(total 2 sector(s))"));
  EXPECT_EQ(CachedBytes(other, 0, 100), 0);
  EXPECT_EQ(CachedBytes(other, kHalf, 100), 100);
}

TEST_F(SectorEvictionTest, SurvivorsMoveDownTheFileShrinksAndFinallyGoes) {
  RecordingLog log;
  const long long size = 2 * kHalf + 1000;  // the last sector holds 1,000 bytes
  ReadonlyCache cache(Dir(), "compact.bin", size, &config_);
  Put(cache, 0);
  Age(200);
  Put(cache, kHalf);
  Age(200);
  Put(cache, kMiB, 1000);  // slots in fetch order: 0, 1 and 2
  ASSERT_EQ(cache.GetFileSize(), 3 * kHalf);

  // Dropping slot 0 moves the highest slot's sector into it and cuts the end.
  SetAges(1000000, 300, 1000000, 1000000);
  cache.ClearOldCache(false);
  EXPECT_EQ(log.LevelOf("ClearOldCache : OK, 1572864 => 1048576"), LOGLEVEL_INFO);
  EXPECT_EQ(cache.GetFileSize(), kMiB);
  std::string file = FileContents(cache.GetCachePath());
  ASSERT_EQ(static_cast<long long>(file.size()), kMiB);
  EXPECT_EQ(FakeOrigin::FirstMismatch(file.data(), kMiB, 1000), -1);
  EXPECT_EQ(FakeOrigin::FirstMismatch(file.data() + kHalf, kHalf, kHalf), -1);

  // Dropping the sector in the last slot needs no move, only the cut.
  SetAges(1000000, 150, 1000000, 1000000);
  cache.ClearOldCache(false);
  EXPECT_EQ(log.LevelOf("ClearOldCache : OK, 1048576 => 524288"), LOGLEVEL_INFO);
  EXPECT_EQ(cache.GetFileSize(), kHalf);
  EXPECT_EQ(CachedBytes(cache, kMiB, 4096), 1000);
  EXPECT_EQ(CachedBytes(cache, 0, 100), 0);
  EXPECT_EQ(CachedBytes(cache, kHalf, 100), 0);

  // The last sector gone, the file goes with it and is not recreated by
  // asking for its size.
  Age(1);
  SetAges(0, 0, 0, 0);
  cache.ClearOldCache(false);
  EXPECT_EQ(log.LevelOf("ClearOldCache : OK, 524288 => 0(Deleted)"), LOGLEVEL_INFO);
  EXPECT_FALSE(Exists(cache.GetCachePath()));
  EXPECT_EQ(cache.GetFileSizeForQuota(), 0);
  EXPECT_FALSE(Exists(cache.GetCachePath()));
  EXPECT_FALSE(log.Contains("Truncate failed"));

  // The cache stays usable and starts a new file without complaint.
  FakeOrigin origin(size);
  std::vector<char> buffer(2000);
  _READDATA rd{buffer.data(), kHalf - 1000, buffer.size(), 0, std::make_shared<_FS_HANDLE>(),
               size, &origin, 0, false};
  ASSERT_EQ(cache.Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 2000u);
  EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), kHalf - 1000, 2000), -1);
  EXPECT_FALSE(log.Contains("Cache file is deleted"));
  EXPECT_EQ(cache.GetFileSizeForQuota(), 3 * kHalf);
}

TEST_F(SectorEvictionTest, LargestEmptyOffsetFollowsTheRunOfPresentSectors) {
  RecordingLog log;
  ReadonlyCache cache(Dir(), "run.bin", 16 * kMiB, &config_);  // ramax is 1 MiB here
  for (long long s : {0LL, kHalf, kMiB, 3 * kMiB, 5 * kMiB, 11 * kHalf, 6 * kMiB, 13 * kHalf})
    Put(cache, s);

  EXPECT_EQ(cache.GetLargestEmptyOffset(2 * kMiB + 5), 2 * kMiB);  // absent: its sector
  EXPECT_FALSE(log.Contains("At GetLargestEmptyOffset"));
  EXPECT_EQ(cache.GetLargestEmptyOffset(100), kMiB);           // the run ends before a gap
  EXPECT_EQ(cache.GetLargestEmptyOffset(3 * kMiB), 3 * kMiB);  // a run of one
  EXPECT_EQ(cache.GetLargestEmptyOffset(5 * kMiB), -1);        // reaches past offset + ramax
  EXPECT_EQ(cache.GetLargestEmptyOffset(11 * kHalf), 13 * kHalf);  // entries run out
  EXPECT_EQ(log.LevelOf("[run.bin] At GetLargestEmptyOffset, empty_sectors_ is empty."), LOGLEVEL_INFO);
}

// The file deleted while its stream was closed for idleness: the pass that
// reopens it finds the sectors it chose already dropped with their slots.
TEST_F(SectorEvictionTest, PassOverAFileDeletedWhileClosedDropsItsIndexOnce) {
  RecordingLog log;
  ReadonlyCache cache(Dir(), "gone.bin", 4 * kMiB, &config_);
  Put(cache, 0);
  Put(cache, kHalf);
  AdvanceClockForTesting(TimedHandle::kIdleTimeout + std::chrono::seconds(1));
  ASSERT_TRUE(cache.CheckHandles());
  ASSERT_EQ(std::remove(cache.GetCachePath().c_str()), 0);

  SetAges(0, 0, 0, 0);
  cache.ClearOldCache(false);
  EXPECT_EQ(log.Count("Cache file is deleted. Clear cache information."), 1);
  EXPECT_EQ(log.LevelOf("ClearOldCache : OK, 0 => 0(Deleted)"), LOGLEVEL_INFO);
  EXPECT_EQ(CachedBytes(cache, 0, 100), 0);
  EXPECT_EQ(cache.Reserve(0, kMiB), kOk);  // nothing of the old index is left
  EXPECT_EQ(cache.ClearReserved(0, kMiB), kOk);

  FakeOrigin origin(4 * kMiB);
  std::vector<char> buffer(1000);
  _READDATA rd{buffer.data(), kHalf - 500, buffer.size(), 0, std::make_shared<_FS_HANDLE>(),
               origin.size(), &origin, 0, false};
  ASSERT_EQ(cache.Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 1000u);
  EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), kHalf - 500, 1000), -1);
}

}  // namespace
