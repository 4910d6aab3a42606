// The read path of the sector cache against a deterministic origin.
#include "cache/readonly_cache.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "cache/sector.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

constexpr long long kMiB = 1048576;

_READDATA Request(std::vector<char>& buffer, long long offset, FakeOrigin* origin, long long timeout = 0) {
  return _READDATA{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(),
                   origin != nullptr ? origin->size() : 0, origin, timeout, false};
}

class ReadonlyCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { Cache_UnbindAsyncQ(); }
  std::string Dir() const { return dir_.path() + "/"; }
  TempDir dir_;
  FakeConfig config_;
};

TEST_F(ReadonlyCacheTest, SmallReadFetchesOneMiBRunAndServesOriginBytes) {
  RecordingLog log;
  FakeOrigin origin(10 * kMiB);
  ReadonlyCache cache(Dir(), "drive:a.bin", origin.size(), &config_);
  EXPECT_EQ(cache.GetFileSize(), 0);

  std::vector<char> buffer(100);
  _READDATA rd = Request(buffer, 0, &origin);
  ASSERT_EQ(cache.Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 100u);
  EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), 0, 100), -1);
  ASSERT_EQ(origin.Requests().size(), 1u);
  EXPECT_EQ(origin.Requests()[0], std::make_pair(0LL, 1048576L));
  EXPECT_EQ(cache.GetFileSize(), 2 * kSectorSize);
  EXPECT_TRUE(log.Contains("[CACHE     ] [a.bin] Read only cache initialized"));

  // Cached now: a second read fetches nothing.
  origin.ClearRequests();
  std::vector<char> inner(5000);
  _READDATA rd2 = Request(inner, kSectorSize - 2000, &origin);
  ASSERT_EQ(cache.Read(&rd2), kOk);
  EXPECT_EQ(rd2.transferred, 5000u);
  EXPECT_EQ(FakeOrigin::FirstMismatch(inner.data(), kSectorSize - 2000, 5000), -1);
  // The read still asks for a MiB from its offset: only the missing sector.
  ASSERT_EQ(origin.Requests().size(), 1u);
  EXPECT_EQ(origin.Requests()[0], std::make_pair(2 * kSectorSize, 524288L));
}

TEST_F(ReadonlyCacheTest, ManyThreadsReadingThroughWorkersGetOriginBytes) {
  FakeOrigin origin(20 * kMiB + 12345);
  ReadonlyCache cache(Dir(), "many.bin", origin.size(), &config_);
  TestQueue queue(TestQueue::Mode::kRun, 3);
  std::atomic<int> failures{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&, t] {
      std::mt19937_64 random(t);
      for (int i = 0; i < 40; ++i) {
        long long offset = static_cast<long long>(random() % static_cast<uint64_t>(origin.size()));
        // Reads stop at the end of the file, as a client that knows the size sends them.
        size_t size = 1 + random() % std::min<uint64_t>(3 * kSectorSize, static_cast<uint64_t>(origin.size() - offset));
        std::vector<char> buffer(size);
        _READDATA rd = Request(buffer, offset, &origin, -1);
        if (cache.Read(&rd) != kOk) { ++failures; continue; }
        long long expected = std::min<long long>(static_cast<long long>(size), origin.size() - offset);
        if (static_cast<long long>(rd.transferred) > expected ||
            FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)) != -1)
          ++failures;
      }
    });
  }
  for (auto& r : readers) r.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
