// The cache object under concurrent readers: the first readers of a fresh
// sector cache, and mode switches while reads run.
#include "cache/cache_obj.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <thread>

#include "cache/sector.h"
#include "support/fake_config.h"
#include "support/requests.h"
#include "support/temp_dir.h"
#include "support/test_point_gate.h"
#include "support/test_queue.h"

namespace {

struct CacheObjTest : ::testing::Test {
  TempDir dir_;
  FakeConfig config_;
  FakeOrigin origin_{20 * kMiB + 12345};
  CacheObj obj_{dir_.path() + "/", "a.bin", 'r', origin_.size(), &origin_, &config_, "dir/a.bin"};
};

// Two first readers of a fresh sector cache: the first is held just before
// it creates the file. The second must wait for it rather than create the
// file as well, which would let the first's creation cut off the sectors the
// second had written meanwhile. The bounded wait gives a second reader that
// is not kept out the time to write its sectors.
TEST_F(CacheObjTest, FirstReadersCreateTheFileOnce) {
  TestPointGate gate("sector cache: creating its file");
  auto first = std::async(std::launch::async, [&] { return Served(obj_, origin_, 0, 1000); });
  ASSERT_TRUE(gate.WaitUntilHeld());
  auto second = std::async(std::launch::async, [&] { return Served(obj_, origin_, 8 * kMiB, 1000); });
  second.wait_for(std::chrono::seconds(1));
  gate.Release();
  EXPECT_TRUE(first.get() && second.get());
  // Read again: neither reader's sectors were cut off.
  EXPECT_TRUE(Served(obj_, origin_, 8 * kMiB, 1000) && Served(obj_, origin_, 0, 1000));
}

// Readers on four threads, fetching through three queue workers: every read
// succeeds with the origin's bytes. Then mode switches while they read never
// free a file under a running read: whatever a read returns is the origin's.
TEST_F(CacheObjTest, ReadersThroughWorkersGetOriginBytesWhileModesSwitch) {
#if defined(__SANITIZE_THREAD__)
  constexpr int kReads = 12;  // per thread: ThreadSanitizer makes each read slow
#else
  constexpr int kReads = 40;
#endif
  TestQueue queue(TestQueue::Mode::kRun, 3);
  for (bool switching : {false, true}) {
    std::atomic<int> reads{0}, wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
      readers.emplace_back([&, t] {
        std::mt19937_64 random(t + (switching ? 4 : 0));
        for (int i = 0; i < kReads; ++i, ++reads) {
          const long long offset = static_cast<long long>(random() % static_cast<uint64_t>(origin_.size()));
          // Reads stop at the end of the file, as a client that knows the size sends them.
          const size_t size = 1 + random() % std::min<uint64_t>(3 * kSectorSize, origin_.size() - offset);
          const ReadOutcome r = ReadAndCheck(obj_, origin_, offset, size, -1);
          if ((r.status != kOk && !switching) || !r.Clean()) ++wrong;
        }
      });
    for (int i = 0; switching && reads.load() < 4 * kReads; ++i) {
      const int seen = reads.load();
      EXPECT_EQ(obj_.SetMode(i % 2 == 0 ? 'w' : 'r', origin_.size(), &origin_), kOk);
      while (reads.load() == seen && reads.load() < 4 * kReads) std::this_thread::yield();
    }
    for (auto& r : readers) r.join();
    EXPECT_EQ(wrong.load(), 0) << (switching ? "with mode switches" : "read-only");
  }
}

}  // namespace
