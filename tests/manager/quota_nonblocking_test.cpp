// The quota manager thread against clients: a clearing pass holds up only the
// file it clears, and a cache directory that vanishes under a running manager
// costs errors, never wrong bytes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cache/cache_manager.h"
#include "common/clock.h"
#include "manager/settings_file.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kMiB = 1048576;

// Every cycle clears; sectors older than 50 s go, over the limit or not.
constexpr const char* kClearAfter50s =
    R"({"cache":{"clear":{"period":0,"usedblock":50,"unusedblock":50,)"
    R"("over":{"usedblock":50,"unusedblock":50}}}})";

bool WaitFor(const std::function<bool()>& done, int tries = 500) {
  for (int i = 0; i < tries; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

// Reads [offset, offset + size) of `file`. Returns the status; on success
// *wrong tells whether any delivered byte differs from the origin's.
unsigned int ReadRange(ICacheObj& file, FakeOrigin& origin, long long offset, size_t size, bool* wrong,
                       long long timeout_ms = 5000) {
  std::vector<char> buffer(size);
  _READDATA rd{buffer.data(), offset, size, 0, std::make_shared<_FS_HANDLE>(), origin.size(), &origin, timeout_ms,
               false};
  unsigned int status = file.Read(&rd);
  *wrong = status == kOk &&
           (rd.transferred > size ||
            FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)) != -1);
  return status;
}

// Reads the whole origin in 1 MiB requests; true when every read succeeded
// with the origin's bytes.
bool ReadAll(ICacheObj& file, FakeOrigin& origin) {
  for (long long offset = 0; offset < origin.size(); offset += kMiB) {
    bool wrong = false;
    size_t size = static_cast<size_t>(std::min(kMiB, origin.size() - offset));
    if (ReadRange(file, origin, offset, size, &wrong) != kOk || wrong) return false;
  }
  return true;
}

// Records every line; once armed, the thread that logs the start of a
// clearing pass of `held_tag` stops inside that pass until Release().
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
    std::string text(line);
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
  // Waits until a pass is held; false after 10 s.
  bool WaitUntilHeld() {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(10), [this] { return holding_; });
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

// Lets a held pass go on whatever way the test leaves, before the manager
// joins its quota thread.
struct ReleaseOnExit {
  HoldingLog& log;
  ~ReleaseOnExit() { log.Release(); }
};

class QuotaNonBlockingTest : public ::testing::Test {
 protected:
  void SetUp() override { Cache_UnbindAsyncQ(); }
  void TearDown() override { ResetClockForTesting(); }
  SettingsFile none_{""};
  TempDir dir_;
};

// The quota thread is stopped inside the clearing pass of a large file, with
// that file's object and index locks held. Meanwhile another file opens,
// fetches, serves correct bytes and closes; a read of the file being cleared
// waits for the pass and then gets correct bytes.
TEST_F(QuotaNonBlockingTest, ClearingOneFileHoldsUpOnlyThatFile) {
  HoldingLog log("big.bin");
  Cache cache(dir_.path().c_str(), 1024 * kMiB);
  ASSERT_EQ(cache.SetConfiguration(kClearAfter50s), kOk);
  ReleaseOnExit release{log};

  FakeOrigin big_origin(16 * kMiB);
  std::shared_ptr<ICacheObj> big = cache.Open("big.bin", 'r', big_origin.size(), &big_origin);
  ASSERT_TRUE(ReadAll(*big, big_origin));

  log.Arm();
  AdvanceClockForTesting(std::chrono::seconds(100));
  ASSERT_TRUE(log.WaitUntilHeld());

  std::atomic<bool> big_read_done{false};
  std::atomic<bool> big_read_ok{false};
  std::thread big_reader([&] {
    bool wrong = false;
    big_read_ok = ReadRange(*big, big_origin, 3 * kMiB + 100, 2 * kMiB, &wrong) == kOk && !wrong;
    big_read_done = true;
  });

  std::atomic<bool> client_done{false};
  std::atomic<bool> client_ok{false};
  std::thread client([&] {
    FakeOrigin small_origin(8 * kMiB + 12345);
    bool ok = true;
    for (int round = 0; round < 3 && ok; ++round) {
      std::shared_ptr<ICacheObj> small = cache.Open("small.bin", 'r', small_origin.size(), &small_origin);
      ok = ReadAll(*small, small_origin) && ReadAll(*small, small_origin);
      small.reset();
      ok = ok && cache.Close("small.bin") == kOk;
    }
    client_ok = ok;
    client_done = true;
  });

  // Were a lock of the manager or of another file held by the pass, the
  // client would wait here until the release below.
  EXPECT_TRUE(WaitFor([&] { return client_done.load(); }, 1000));
  EXPECT_TRUE(client_ok);
  EXPECT_FALSE(big_read_done) << "a read of the file being cleared got past the pass";
  EXPECT_FALSE(log.Contains("[big.bin] ClearOldCache : OK"));

  log.Release();
  ASSERT_TRUE(WaitFor([&] { return big_read_done.load(); }));
  big_reader.join();
  client.join();
  EXPECT_TRUE(big_read_ok);
  EXPECT_TRUE(WaitFor([&] { return log.Contains("[big.bin] ClearOldCache : OK"); }));
  // After the pass the file fetches again and serves the origin's bytes.
  EXPECT_TRUE(ReadAll(*big, big_origin));
  big.reset();
  cache.Close("big.bin");
}

// The whole cache directory is removed under a manager with an open read-only
// file. Reads of cached and uncached ranges fail or serve the origin's bytes,
// before and after the quota thread has cleared the file's sectors; the quota
// thread goes on measuring (0) and stops in order.
TEST_F(QuotaNonBlockingTest, VanishedCacheDirectoryCostsErrorsNeverWrongBytes) {
  RecordingLog log;
  FakeOrigin origin(8 * kMiB + 777);
  {
    Cache cache(dir_.path().c_str(), 64 * kMiB);
    ASSERT_EQ(cache.SetConfiguration(kClearAfter50s), kOk);
    std::shared_ptr<ICacheObj> file = cache.Open("doomed.bin", 'r', origin.size(), &origin);
    bool wrong = false;
    ASSERT_EQ(ReadRange(*file, origin, 0, static_cast<size_t>(4 * kMiB), &wrong), kOk);
    ASSERT_FALSE(wrong);

    std::filesystem::remove_all(dir_.path());
    ASSERT_FALSE(std::filesystem::exists(dir_.path()));

    auto zero_measures = [&] { return log.Count("Total cache : 0(limits : "); };
    auto read_everywhere = [&](const char* when) {
      int served = 0;
      // Cached, partly cached, never cached, and the short last sector.
      const long long offsets[] = {0, 1000, 3 * kMiB + 5, 4 * kMiB - 10, 6 * kMiB, 8 * kMiB};
      for (long long offset : offsets) {
        size_t size = static_cast<size_t>(std::min(kMiB + 333, origin.size() - offset));
        bool bad = false;
        unsigned int status = ReadRange(*file, origin, offset, size, &bad, 1000);
        EXPECT_FALSE(bad) << when << ": wrong bytes at " << offset;
        served += status == kOk;
      }
      return served;
    };

    const int before = zero_measures();
    read_everywhere("after the removal");
    ASSERT_TRUE(WaitFor([&] { return zero_measures() >= before + 2; }));

    // Age every sector: the next passes clear the file whose directory is gone.
    AdvanceClockForTesting(std::chrono::seconds(100));
    const int aged = zero_measures();
    ASSERT_TRUE(WaitFor([&] { return zero_measures() >= aged + 2; }));
    read_everywhere("after clearing");

    const int later = zero_measures();
    EXPECT_TRUE(WaitFor([&] { return zero_measures() >= later + 1; })) << "the quota thread stopped measuring";
    file.reset();
    cache.Close("doomed.bin");
  }
  int stopped = log.IndexOf("[CACHE     ] Cache quota manager stopped");
  EXPECT_GE(stopped, 0);
  EXPECT_LT(stopped, log.IndexOf("[CACHE     ] Cache uninitialized"));
}

}  // namespace
