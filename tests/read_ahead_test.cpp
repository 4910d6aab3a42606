// Read-ahead of the sector cache: when a continuous reader gets a large block
// fetched ahead of it, how large, and what resets the growth.
#include <gtest/gtest.h>

#include <chrono>
#include <utility>
#include <vector>

#include "cache/default_settings.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

constexpr long long kMiB = 1048576;
constexpr long long kHalf = kSectorSize;
using Range = std::pair<long long, long>;

class ReadAheadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    _CACHECONFIG conf = kDefaultCacheConfig;
    conf.rahit = 2;
    conf.ramin = kMiB;
    conf.ramax = 8 * kMiB;
    config_.Set(conf);
  }
  void TearDown() override { ResetClockForTesting(); }
  std::string Dir() const { return dir_.path() + "/"; }

  void Configure(void (*change)(_CACHECONFIG&)) {
    _CACHECONFIG conf = config_.GetConfig();
    change(conf);
    config_.Set(conf);
  }

  // A 4 KiB read with a fetcher; expects success and origin bytes.
  void ReadAt(ReadonlyCache& cache, FakeOrigin& origin, long long offset) {
    std::vector<char> buffer(4096);
    _READDATA rd{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(),
                 origin.size(), &origin, 0, false};
    ASSERT_EQ(cache.Read(&rd), kOk) << "at " << offset;
    EXPECT_EQ(rd.transferred, 4096u);
    EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), offset, 4096), -1) << "at " << offset;
  }

  // Reads what is cached, without a fetcher; true when `length` origin bytes came.
  bool Cached(ReadonlyCache& cache, long long offset, long long length) {
    std::vector<char> buffer(static_cast<size_t>(length));
    _READDATA rd{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), 0, nullptr, 0, false};
    return cache.Read(&rd) == kOk && static_cast<long long>(rd.transferred) == length &&
           FakeOrigin::FirstMismatch(buffer.data(), offset, length) == -1;
  }

  TempDir dir_;
  FakeConfig config_;
};

TEST_F(ReadAheadTest, FourthContinuousReadStartsBlocksThatDoubleUpToTheMaximum) {
  FakeOrigin origin(25 * kMiB);
  ReadonlyCache cache(Dir(), "ladder.bin", origin.size(), &config_);

  ReadAt(cache, origin, 0);
  ReadAt(cache, origin, 0);
  ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests().size(), 1u);  // the first read's own MiB, no read-ahead yet
  ReadAt(cache, origin, 0);
  ASSERT_EQ(origin.Requests().size(), 2u);

  // Each block starts at the last sector of the cached run from the reader.
  ReadAt(cache, origin, kHalf);
  ReadAt(cache, origin, kMiB);
  ReadAt(cache, origin, 5 * kHalf);
  ReadAt(cache, origin, 6 * kMiB);
  ReadAt(cache, origin, 27 * kHalf);  // the last block is cut at the end of the file
  ReadAt(cache, origin, 21 * kMiB);   // cached to the end: nothing more
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB},
                                                    {kHalf, kMiB},
                                                    {kMiB, 2 * kMiB},
                                                    {5 * kHalf, 4 * kMiB},
                                                    {6 * kMiB, 8 * kMiB},
                                                    {27 * kHalf, 8 * kMiB},
                                                    {21 * kMiB, 4 * kMiB}}));
  EXPECT_TRUE(Cached(cache, 0, origin.size()));
}

TEST_F(ReadAheadTest, OnlyOneLargeBlockIsInFlightAtATime) {
  RecordingLog log;
  FakeOrigin origin(32 * kMiB);
  ReadonlyCache cache(Dir(), "busy.bin", origin.size(), &config_);
  TestQueue queue(TestQueue::Mode::kRun);

  ReadAt(cache, origin, 0);
  ASSERT_TRUE(queue.WaitIdle());
  queue.set_mode(TestQueue::Mode::kHold);
  ReadAt(cache, origin, 0);
  ReadAt(cache, origin, 0);
  EXPECT_EQ(queue.Enqueued(), 1);
  ReadAt(cache, origin, 0);  // served from cache while its read-ahead waits in the queue
  EXPECT_EQ(queue.Held(), 1u);
  EXPECT_TRUE(log.Contains("Read-ahead from 524288, 1048576 bytes"));

  ReadAt(cache, origin, 0);
  EXPECT_EQ(queue.Held(), 1u);
  EXPECT_TRUE(log.Contains("[CheckReadAhead] There is a busy read_ahead_!"));

  queue.RunHeld();
  ASSERT_TRUE(queue.WaitIdle());
  // The read made while busy kept the run going: the next block is larger.
  ReadAt(cache, origin, kHalf);
  EXPECT_EQ(queue.Held(), 1u);
  queue.RunHeld();
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}, {kHalf, kMiB}, {kMiB, 2 * kMiB}}));
  EXPECT_TRUE(Cached(cache, 0, 3 * kMiB));

  // A block the queue drops, or the origin fails, does not block the next.
  ReadAt(cache, origin, kMiB);
  ASSERT_EQ(queue.Held(), 1u);
  queue.CancelHeld();
  ASSERT_TRUE(queue.WaitIdle());
  ReadAt(cache, origin, kMiB);
  ASSERT_EQ(queue.Held(), 1u);
  origin.set_mode(FakeOrigin::Mode::kFail);
  queue.RunHeld();
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(log.LevelOf("[busy.bin:1] Read-ahead large block failed : 2621440, 8388608"), LOGLEVEL_ERROR);
  origin.set_mode(FakeOrigin::Mode::kNormal);
  origin.ClearRequests();
  ReadAt(cache, origin, kMiB);
  ASSERT_EQ(queue.Held(), 1u);
  queue.RunHeld();
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{5 * kHalf, 8 * kMiB}}));
  EXPECT_TRUE(Cached(cache, 0, 21 * kHalf));
}

TEST_F(ReadAheadTest, JumpsAndLongPausesStartTheRunAgain) {
  RecordingLog log;
  FakeOrigin origin(32 * kMiB);
  ReadonlyCache cache(Dir(), "jumps.bin", origin.size(), &config_);
  for (int i = 0; i < 4; ++i) ReadAt(cache, origin, 0);
  ReadAt(cache, origin, kHalf);  // second block: 2 MiB
  ASSERT_EQ(origin.Requests().size(), 3u);
  origin.ClearRequests();

  // Backwards: the history restarts, so three more reads fetch nothing and
  // the fourth starts again at the smallest block.
  ReadAt(cache, origin, 0);
  EXPECT_EQ(log.Count("Reserving offsets are not continuous. Clearing history."), 1);
  ReadAt(cache, origin, 0);
  ReadAt(cache, origin, 0);
  EXPECT_TRUE(origin.Requests().empty());
  ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{5 * kHalf, kMiB}}));

  // 300.5 s apart still counts as continuous.
  origin.ClearRequests();
  AdvanceClockForTesting(std::chrono::milliseconds(300500));
  ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{3 * kMiB, 2 * kMiB}}));

  // 301 s apart does not.
  origin.ClearRequests();
  AdvanceClockForTesting(std::chrono::seconds(301));
  ReadAt(cache, origin, 0);
  EXPECT_EQ(log.Count("Reserving offsets are not continuous. Clearing history."), 2);
  ReadAt(cache, origin, 0);
  ReadAt(cache, origin, 0);
  EXPECT_TRUE(origin.Requests().empty());
  ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{9 * kHalf, kMiB}}));

  // Forwards by more than the largest block: a new run as well.
  origin.ClearRequests();
  ReadAt(cache, origin, 8 * kMiB + kHalf);
  EXPECT_EQ(log.Count("Reserving offsets are not continuous. Clearing history."), 3);
  ReadAt(cache, origin, 8 * kMiB + kHalf);
  ReadAt(cache, origin, 8 * kMiB + kHalf);
  ReadAt(cache, origin, 8 * kMiB + kHalf);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{17 * kHalf, kMiB}, {9 * kMiB, kMiB}}));
}

TEST_F(ReadAheadTest, BlocksAreFetchedInPiecesOfAtMostTheLargestRequest) {
  Configure([](_CACHECONFIG& c) {
    c.rahit = 0;
    c.ramin = 8 * kMiB;
    c.readfetchmax = 4 * kMiB;
  });
  FakeOrigin origin(20 * kMiB);
  ReadonlyCache cache(Dir(), "pieces.bin", origin.size(), &config_);
  ReadAt(cache, origin, 0);
  ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}, {kHalf, 4 * kMiB}, {9 * kHalf, 4 * kMiB}}));

  // No limit on a single request: the block comes in one piece.
  Configure([](_CACHECONFIG& c) { c.readfetchmax = 0; });
  origin.ClearRequests();
  ReadAt(cache, origin, kHalf);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{8 * kMiB, 8 * kMiB}}));
  EXPECT_TRUE(Cached(cache, 0, 16 * kMiB));
}

TEST_F(ReadAheadTest, ReadAheadStaysWithinOneQuotaOfTheReader) {
  RecordingLog log;
  config_.SetQuota(kHalf);
  FakeOrigin origin(16 * kMiB);
  ReadonlyCache cache(Dir(), "quota.bin", origin.size(), &config_);
  for (int i = 0; i < 5; ++i) ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}}));
  EXPECT_EQ(log.Count("[CheckReadAhead] Closest empty offset exceeds the quota!"), 4);

  // Those reads were remembered: with room again the very next read goes ahead.
  config_.SetQuota(1ull << 30);
  ReadAt(cache, origin, 0);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}, {kHalf, kMiB}}));
}

}  // namespace
