// The quota manager thread, and the whole client flow while it evicts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "cache/cache_manager.h"
#include "common/clock.h"
#include "manager/settings_file.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

constexpr long long kMiB = 1048576;

// Ages only count when over the limit; every pass runs each cycle.
constexpr const char* kClearOnlyOverLimit =
    R"({"cache":{"clear":{"period":0,"usedblock":1000000,"unusedblock":1000000,)"
    R"("over":{"usedblock":0,"unusedblock":0}}}})";

int CacheFiles(const std::string& dir) {
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    n += entry.path().extension() == ".cache";
  return n;
}

bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 300; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

class QuotaManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Cache_UnbindAsyncQ(); }
  void TearDown() override { ResetClockForTesting(); }
  SettingsFile none_{""};
  TempDir dir_;
};

TEST_F(QuotaManagerTest, ClearsOldSectorsOnlyWhileOverTheLimit) {
  RecordingLog log;
  FakeOrigin origin(4 * kMiB);
  {
    Cache cache(dir_.path().c_str(), 64 * kMiB);
    ASSERT_EQ(cache.SetConfiguration(kClearOnlyOverLimit), kOk);
    auto file = cache.Open("a.bin", 'r', origin.size(), &origin);
    std::vector<char> buffer(1000);
    _READDATA rd{buffer.data(), 0, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), origin.size(), &origin, -1,
                 false};
    ASSERT_EQ(file->Read(&rd), kOk);
    AdvanceClockForTesting(std::chrono::seconds(5));

    // Under the limit the sectors are young enough: the file stays.
    ASSERT_TRUE(WaitFor([&] { return log.Count("Total cache : ") >= 3; }));
    EXPECT_EQ(CacheFiles(dir_.path()), 1);
    EXPECT_FALSE(log.Contains("ClearOldCache : OK"));

    // A sparse ballast puts the directory over its limit.
    std::string ballast = dir_.File("ballast");
    ASSERT_EQ(truncate(dir_.Write("ballast", "").c_str(), 2 * static_cast<off_t>(cache.GetLimit())), 0);
    ASSERT_TRUE(WaitFor([&] { return log.Contains("(Deleted)"); }));
    EXPECT_EQ(CacheFiles(dir_.path()), 0);
  }
  // Stopping is orderly: the thread ends before the manager is gone.
  int stopped = log.IndexOf("[CACHE     ] Cache quota manager stopped");
  int uninitialized = log.IndexOf("[CACHE     ] Cache uninitialized");
  EXPECT_GE(stopped, 0);
  EXPECT_LT(stopped, uninitialized);
  EXPECT_LT(log.IndexOf("[CACHE     ] Uninitialize cache..."), stopped);
}

TEST_F(QuotaManagerTest, WholeClientFlowServesOriginBytesWhileEvicting) {
  ICache_V2* cache = nullptr;
  ASSERT_EQ(InitCache(dir_.path().c_str(), 64 * kMiB, &cache), kOk);
  ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"clear":{"period":0,"usedblock":0,"unusedblock":0}}})"), kOk);
  std::vector<std::unique_ptr<FakeOrigin>> origins;
  std::vector<std::shared_ptr<ICacheObj>> files;
  for (int i = 0; i < 3; ++i) {
    origins.push_back(std::make_unique<FakeOrigin>(6 * kMiB + 1000 * i));
    files.push_back(cache->Open(("dir/file" + std::to_string(i)).c_str(), 'r', origins[i]->size(), origins[i].get()));
  }
  std::atomic<int> wrong{0};
  std::atomic<int> served{0};
  {
    TestQueue queue(TestQueue::Mode::kRun, 2);
    std::atomic<bool> stop{false};
    std::thread ager([&] {
      while (!stop) {
        AdvanceClockForTesting(std::chrono::seconds(2));
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
      }
    });
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
      readers.emplace_back([&, t] {
        std::mt19937_64 random(t);
        for (int i = 0; i < 30; ++i) {
          int which = static_cast<int>(random() % files.size());
          FakeOrigin& origin = *origins[which];
          long long offset = static_cast<long long>(random() % static_cast<uint64_t>(origin.size() - 1));
          size_t size = 1 + random() % std::min<uint64_t>(2 * kMiB, static_cast<uint64_t>(origin.size() - offset));
          std::vector<char> buffer(size);
          _READDATA rd{buffer.data(), offset, size, 0, std::make_shared<_FS_HANDLE>(), origin.size(), &origin, 5000,
                       false};
          // Eviction may take a sector between its arrival and the copy: an
          // error then, but never a wrong byte.
          if (files[which]->Read(&rd) != kOk) continue;
          ++served;
          if (FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)) != -1) ++wrong;
        }
      });
    }
    for (auto& r : readers) r.join();
    stop = true;
    ager.join();
  }
  files.clear();
  for (int i = 0; i < 3; ++i) cache->Close(("dir/file" + std::to_string(i)).c_str());
  EXPECT_EQ(ReleaseCache(dir_.path().c_str()), kOk);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_GT(served.load(), 0);
}

}  // namespace
