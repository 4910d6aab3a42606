// The quota pass: it clears only while the directory is over its limit, a
// pass stopped over one file holds up no other, and a cache directory that
// vanishes under it costs errors, never wrong bytes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "cache/cache_manager.h"
#include "common/clock.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/test_point_gate.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;

// Reads the whole origin in 1 MiB requests; true when each served the origin's bytes.
bool ReadAll(ICacheObj& file, FakeOrigin& origin) {
  for (long long offset = 0; offset < origin.size(); offset += kMiB) {
    if (!Served(file, origin, offset, static_cast<size_t>(std::min(kMiB, origin.size() - offset)), 5000)) return false;
  }
  return true;
}

// Passes run only when a test calls RunQuotaPassNow. Sectors are old after
// `age` seconds, or `over_age` while the directory is over its limit.
class QuotaManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Cache_UnbindAsyncQ(); }
  void TearDown() override { ResetClockForTesting(); }
  std::unique_ptr<Cache> Start(unsigned long long limit, long long age, long long over_age) {
    auto cache = std::make_unique<Cache>(dir_.path().c_str(), limit);
    const std::string json = R"({"cache":{"clear":{"period":4000000000,"usedblock":)" + std::to_string(age) +
                             R"(,"unusedblock":)" + std::to_string(age) + R"(,"over":{"usedblock":)" +
                             std::to_string(over_age) + R"(,"unusedblock":)" + std::to_string(over_age) + "}}}}";
    EXPECT_EQ(cache->SetConfiguration(json.c_str()), kOk);
    return cache;
  }
  SettingsFile none_{""};
  TempDir dir_;
};

TEST_F(QuotaManagerTest, ClearsOldSectorsOnlyWhileOverTheLimit) {
  auto cache = Start(64 * kMiB, 1000000, 0);
  FakeOrigin origin(4 * kMiB);
  auto file = cache->Open("a.bin", 'r', origin.size(), &origin);
  ASSERT_TRUE(Served(*file, origin, 0, 1000, -1));
  const std::vector<std::string> cached = SectorCacheFiles(dir_.path());
  ASSERT_EQ(cached.size(), 1u);
  const long long size = FileSize(cached[0]);
  AdvanceClockForTesting(5s);
  cache->RunQuotaPassNow();
  EXPECT_EQ(FileSize(cached[0]), size) << "cleared under the limit";
  // A sparse ballast fills the directory to exactly its limit, which is not
  // over it; one byte more is.
  const std::string ballast = dir_.Write("ballast", "");
  ASSERT_EQ(truncate(ballast.c_str(), static_cast<off_t>(cache->GetLimit()) - BytesInDirectory(dir_.path())), 0);
  cache->RunQuotaPassNow();
  EXPECT_EQ(FileSize(cached[0]), size) << "cleared at the limit";
  ASSERT_EQ(truncate(ballast.c_str(), FileSize(ballast) + 1), 0);
  cache->RunQuotaPassNow();
  EXPECT_TRUE(SectorCacheFiles(dir_.path()).empty());
}

// A pass stopped just before clearing a large file: meanwhile another file
// opens, fetches, serves correct bytes and closes, so the pass holds no lock
// of the manager. Let go, it drops the old sectors and the file fetches again, exactly.
TEST_F(QuotaManagerTest, APassHeldOverOneFileHoldsUpNoOther) {
  Watchdog watchdog("a file opened during a clearing pass", 60s);
  auto cache = Start(1024 * kMiB, 50, 50);
  FakeOrigin big_origin(16 * kMiB);
  std::shared_ptr<ICacheObj> big = cache->Open("big.bin", 'r', big_origin.size(), &big_origin);
  ASSERT_TRUE(ReadAll(*big, big_origin));
  const std::vector<std::string> cached = SectorCacheFiles(dir_.path());
  ASSERT_EQ(cached.size(), 1u);

  AdvanceClockForTesting(100s);
  TestPointGate gate("quota: clearing a file");
  Background pass([&] { cache->RunQuotaPassNow(); });
  ASSERT_TRUE(gate.WaitUntilHeld());
  FakeOrigin small_origin(8 * kMiB + 12345);
  for (int round = 0; round < 3; ++round) {
    std::shared_ptr<ICacheObj> small = cache->Open("small.bin", 'r', small_origin.size(), &small_origin);
    EXPECT_TRUE(ReadAll(*small, small_origin) && ReadAll(*small, small_origin));
    small.reset();
    EXPECT_EQ(cache->Close("small.bin"), kOk);
  }
  EXPECT_FALSE(pass.Done());
  EXPECT_EQ(FileSize(cached[0]), 16 * kMiB);

  gate.Release();
  ASSERT_TRUE(pass.WaitDone());
  EXPECT_LT(FileSize(cached[0]), 16 * kMiB);
  EXPECT_TRUE(ReadAll(*big, big_origin));
}

// The whole cache directory is removed under an open read-only file. Reads
// of cached and uncached ranges fail or serve the origin's bytes, before and
// after a pass has cleared the file's sectors.
TEST_F(QuotaManagerTest, VanishedCacheDirectoryCostsErrorsNeverWrongBytes) {
  Watchdog watchdog("a manager without its directory", 60s);
  auto cache = Start(64 * kMiB, 50, 50);
  // The quota thread stays out of the way: only the passes below close streams.
  TestPointGate quiet("quota: pass done");
  ASSERT_TRUE(quiet.WaitUntilHeld());
  FakeOrigin origin(8 * kMiB + 777);
  std::shared_ptr<ICacheObj> file = cache->Open("doomed.bin", 'r', origin.size(), &origin);
  ASSERT_TRUE(Served(*file, origin, 0, static_cast<size_t>(4 * kMiB), 5000));
  std::filesystem::remove_all(dir_.path());
  auto read_everywhere = [&](const char* when) {
    // Cached, partly cached, never cached, and the short last sector.
    for (long long offset : {0LL, 1000LL, 3 * kMiB + 5, 4 * kMiB - 10, 6 * kMiB, 8 * kMiB}) {
      const size_t size = static_cast<size_t>(std::min(kMiB + 333, origin.size() - offset));
      ReadOutcome r = ReadAndCheck(*file, origin, offset, size, 1000);
      EXPECT_TRUE(r.status != kOk || r.Clean()) << when << ": wrong byte " << r.mismatch << " at " << offset;
    }
  };
  read_everywhere("after the removal");
  // Every sector aged: the pass clears the file, whose next read of a range
  // it held asks the origin again.
  // A read past the cached range keeps the stream in use through the pass.
  AdvanceClockForTesting(100s);
  ReadAndCheck(*file, origin, 6 * kMiB, 1000, 1000);
  cache->RunQuotaPassNow();
  origin.ClearRequests();
  ReadAndCheck(*file, origin, 0, 1000, 1000);
  EXPECT_FALSE(origin.Requests().empty());
  read_everywhere("after clearing");
  // Idle: the pass closes the stream too, which cannot be opened again.
  AdvanceClockForTesting(100s);
  cache->RunQuotaPassNow();
  read_everywhere("after closing");
}

}  // namespace
