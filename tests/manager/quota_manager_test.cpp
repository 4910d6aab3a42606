// The quota manager thread: it clears only while the directory is over its
// limit, a clearing pass holds up only the file it clears, and a cache
// directory that vanishes under it costs errors, never wrong bytes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "cache/cache_manager.h"
#include "common/clock.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/recording_log.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;

// Every cycle clears. Ages count only over the limit, or after 50 s always.
constexpr const char* kClearOnlyOverLimit =
    R"({"cache":{"clear":{"period":0,"usedblock":1000000,"unusedblock":1000000,)"
    R"("over":{"usedblock":0,"unusedblock":0}}}})";
constexpr const char* kClearAfter50s =
    R"({"cache":{"clear":{"period":0,"usedblock":50,"unusedblock":50,)"
    R"("over":{"usedblock":50,"unusedblock":50}}}})";

// Reads the whole origin in 1 MiB requests; true when each served the
// origin's bytes.
bool ReadAll(ICacheObj& file, FakeOrigin& origin) {
  for (long long offset = 0; offset < origin.size(); offset += kMiB) {
    if (!Served(file, origin, offset, static_cast<size_t>(std::min(kMiB, origin.size() - offset)), 5000)) return false;
  }
  return true;
}

// The logger is the one place a test can stop the quota thread inside a
// clearing pass: once armed, the thread that logs the start of a pass over
// `held_tag` stops there until Release().
class HoldingLog : public RecordingLog {
 public:
  explicit HoldingLog(std::string held_tag) : held_tag_("[" + std::move(held_tag) + "] ") {}

  void Write(LOGLEVEL level, const char* format, va_list args) override {
    va_list copy;
    va_copy(copy, args);
    char line[512];
    std::vsnprintf(line, sizeof line, format, copy);
    va_end(copy);
    RecordingLog::Write(level, format, args);
    const std::string text(line);
    if (text.find(held_tag_) == std::string::npos || text.find("will clear") == std::string::npos) return;
    std::unique_lock<std::mutex> guard(lock_);
    if (!armed_) return;
    armed_ = false;
    holding_ = true;
    changed_.notify_all();
    changed_.wait(guard, [this] { return !holding_; });
  }
  void Arm() {
    std::lock_guard<std::mutex> guard(lock_);
    armed_ = true;
  }
  bool WaitUntilHeld() {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, 10s, [this] { return holding_; });
  }
  void Release() {
    std::lock_guard<std::mutex> guard(lock_);
    armed_ = false;
    holding_ = false;
    changed_.notify_all();
  }

 private:
  const std::string held_tag_;
  std::mutex lock_;
  std::condition_variable changed_;
  bool armed_ = false;    // guarded by lock_
  bool holding_ = false;  // guarded by lock_
};

class QuotaManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Cache_UnbindAsyncQ(); }
  void TearDown() override { ResetClockForTesting(); }
  SettingsFile none_{""};
  TempDir dir_;
};

TEST_F(QuotaManagerTest, ClearsOldSectorsOnlyWhileOverTheLimit) {
  FakeOrigin origin(4 * kMiB);
  Cache cache(dir_.path().c_str(), 64 * kMiB);
  ASSERT_EQ(cache.SetConfiguration(kClearOnlyOverLimit), kOk);
  auto file = cache.Open("a.bin", 'r', origin.size(), &origin);
  ASSERT_TRUE(Served(*file, origin, 0, 1000, -1));
  ASSERT_EQ(SectorCacheFiles(dir_.path()).size(), 1u);
  const std::string cached = SectorCacheFiles(dir_.path())[0];
  const long long size = FileSize(cached);
  AdvanceClockForTesting(5s);
  // Under the limit every sector, read or not, is young enough: the file
  // keeps them through the passes of a second.
  EXPECT_FALSE(WaitFor([&] { return FileSize(cached) != size; }, 1s));
  // A sparse ballast puts the directory over its limit.
  ASSERT_EQ(truncate(dir_.Write("ballast", "").c_str(), 2 * static_cast<off_t>(cache.GetLimit())), 0);
  EXPECT_TRUE(WaitFor([&] { return SectorCacheFiles(dir_.path()).empty(); }));
}

// The quota thread is stopped inside the clearing pass of a large file, with
// that file's object and index locks held. Meanwhile another file opens,
// fetches, serves correct bytes and closes; a read of the file being cleared
// waits for the pass and then gets correct bytes.
TEST_F(QuotaManagerTest, ClearingOneFileHoldsUpOnlyThatFile) {
  HoldingLog log("big.bin");
  Cache cache(dir_.path().c_str(), 1024 * kMiB);
  ASSERT_EQ(cache.SetConfiguration(kClearAfter50s), kOk);
  FakeOrigin big_origin(16 * kMiB);
  std::shared_ptr<ICacheObj> big = cache.Open("big.bin", 'r', big_origin.size(), &big_origin);
  ASSERT_TRUE(ReadAll(*big, big_origin));
  ASSERT_EQ(SectorCacheFiles(dir_.path()).size(), 1u);
  const std::string big_file = SectorCacheFiles(dir_.path())[0];

  log.Arm();
  AdvanceClockForTesting(100s);
  ASSERT_TRUE(log.WaitUntilHeld());
  bool big_read_ok = false;
  Background big_reader([&] { big_read_ok = Served(*big, big_origin, 3 * kMiB + 100, 2 * kMiB, 5000); });
  bool client_ok = true;
  Background client([&] {
    FakeOrigin small_origin(8 * kMiB + 12345);
    for (int round = 0; round < 3 && client_ok; ++round) {
      std::shared_ptr<ICacheObj> small = cache.Open("small.bin", 'r', small_origin.size(), &small_origin);
      client_ok = ReadAll(*small, small_origin) && ReadAll(*small, small_origin);
      small.reset();
      client_ok = client_ok && cache.Close("small.bin") == kOk;
    }
  });
  OnExit release([&] { log.Release(); });
  // Were a lock of the manager or of another file held by the pass, the
  // client would wait here until the release below.
  EXPECT_TRUE(client.WaitDone(10s));
  EXPECT_TRUE(client_ok);
  EXPECT_FALSE(big_reader.Done()) << "a read of the file being cleared got past the pass";
  EXPECT_EQ(FileSize(big_file), 16 * kMiB);

  log.Release();
  ASSERT_TRUE(big_reader.WaitDone());
  EXPECT_TRUE(big_read_ok);
  // The pass dropped every old sector; the file fetches again, exactly.
  EXPECT_TRUE(WaitFor([&] { return FileSize(big_file) < 16 * kMiB; }));
  EXPECT_TRUE(ReadAll(*big, big_origin));
}

// The whole cache directory is removed under a manager with an open
// read-only file. Reads of cached and uncached ranges fail or serve the
// origin's bytes, before and after the quota thread has cleared the file's
// sectors, and the manager stops in order.
TEST_F(QuotaManagerTest, VanishedCacheDirectoryCostsErrorsNeverWrongBytes) {
  Watchdog watchdog("a manager without its directory", 60s);
  FakeOrigin origin(8 * kMiB + 777);
  Cache cache(dir_.path().c_str(), 64 * kMiB);
  ASSERT_EQ(cache.SetConfiguration(kClearAfter50s), kOk);
  std::shared_ptr<ICacheObj> file = cache.Open("doomed.bin", 'r', origin.size(), &origin);
  ASSERT_TRUE(Served(*file, origin, 0, static_cast<size_t>(4 * kMiB), 5000));
  std::filesystem::remove_all(dir_.path());

  auto read_everywhere = [&](const char* when) {
    // Cached, partly cached, never cached, and the short last sector.
    for (long long offset : {0LL, 1000LL, 3 * kMiB + 5, 4 * kMiB - 10, 6 * kMiB, 8 * kMiB}) {
      ReadOutcome r = ReadAndCheck(*file, origin, offset, static_cast<size_t>(std::min(kMiB + 333, origin.size() - offset)), 1000);
      EXPECT_TRUE(r.status != kOk || r.Clean()) << when << ": wrong byte " << r.mismatch << " at " << offset;
    }
  };
  read_everywhere("after the removal");
  // Age every sector: a pass clears the file, whose next read of a range it
  // held asks the origin again.
  AdvanceClockForTesting(100s);
  EXPECT_TRUE(WaitFor([&] {
    origin.ClearRequests();
    ReadAndCheck(*file, origin, 0, 1000, 1000);
    return !origin.Requests().empty();
  }));
  read_everywhere("after clearing");
}

}  // namespace
