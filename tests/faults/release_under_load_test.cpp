// ReleaseCache while fetches hang in the origin on the client's workers:
// no crash, no deadlock, nothing leaked, nothing freed under a running task.
#include <gtest/gtest.h>

#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;

// Three files of one manager when it is released:
//  - "dropped": the client let go of it, but a read-ahead of it hangs in the
//    origin. The manager holds the last reference, so ReleaseCache closes it
//    and must wait for that read-ahead: it returns only once the origin lets
//    go.
//  - "held": a client thread is inside a read (no time-out) whose fetch
//    hangs. The object outlives the manager in the client's hands: the read
//    completes later with the origin's bytes, and so do later reads.
//  - "late": its read-ahead was queued before the release and starts only
//    after it; it and the file's later reads and mode switch run without the
//    manager.
// Afterwards the client lets go of its objects and every cache file goes.
TEST(ReleaseUnderLoad, ReleaseWaitsForHangingFetchesAndHeldFilesOutliveTheManager) {
  SettingsFile none("");
  TempDir dir;
  Cache_UnbindAsyncQ();
  const std::string path = dir.path() + "/cache";
  ICache_V2* cache = nullptr;
  ASSERT_EQ(InitCache(path.c_str(), 64 * kMiB, &cache), kOk);
  // Read-ahead from the third read of a run on, 1 MiB at a time.
  ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"ra":{"hit":1,"min":1048576,"max":2097152},)"
                                    R"("read":{"timeout":10000}}})"),
            kOk);
  FakeOrigin dropped_origin(16 * kMiB);
  FakeOrigin held_origin(16 * kMiB + 99);
  FakeOrigin late_origin(16 * kMiB + 1);
  std::shared_ptr<ICacheObj> dropped = cache->Open("load/dropped.bin", 'r', dropped_origin.size(), &dropped_origin);
  std::shared_ptr<ICacheObj> held = cache->Open("load/held.bin", 'r', held_origin.size(), &held_origin);
  std::shared_ptr<ICacheObj> late = cache->Open("load/late.bin", 'r', late_origin.size(), &late_origin);
  constexpr size_t kChunk = 256 * 1024;
  {
    TestQueue queue(TestQueue::Mode::kRun, 3);
    Watchdog watchdog("ReleaseCache under load", 60s);

    // Two reads of each run make the history.
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(Served(*late, late_origin, i * kChunk, kChunk) && Served(*dropped, dropped_origin, i * kChunk, kChunk));
    }
    ASSERT_TRUE(queue.WaitIdle());

    // The third read is served from the cache; its read-ahead hangs.
    dropped_origin.Block();
    OnExit release_dropped([&] { dropped_origin.Release(); });
    const size_t dropped_requests = dropped_origin.Requests().size();
    EXPECT_TRUE(Served(*dropped, dropped_origin, 2 * kChunk, kChunk)) << "dropped";
    ASSERT_TRUE(dropped_origin.WaitForRequests(dropped_requests + 1));
    dropped.reset();

    held_origin.Block();
    OnExit release_held([&] { held_origin.Release(); });
    ReadOutcome held_read;
    Background held_reader([&] { held_read = ReadAndCheck(*held, held_origin, 12345, 100000, -1); });
    ASSERT_TRUE(held_origin.WaitForRequests(1));

    queue.set_mode(TestQueue::Mode::kHold);
    EXPECT_TRUE(Served(*late, late_origin, 2 * kChunk, kChunk)) << "late";
    ASSERT_EQ(queue.Held(), 1u);

    {
      Background releaser([&] { EXPECT_EQ(ReleaseCache(path.c_str()), kOk); });
      EXPECT_FALSE(WaitFor([&] { return releaser.Done(); }, 200ms))
          << "ReleaseCache returned while a read-ahead of its file still ran";
      dropped_origin.Release();
      EXPECT_TRUE(releaser.WaitDone(10s));
    }
    EXPECT_FALSE(held_reader.Done());

    // The manager is gone; the client's objects go on.
    held_origin.Release();
    EXPECT_TRUE(held_reader.WaitDone(10s));
    EXPECT_TRUE(held_read.status == kOk && held_read.Clean() && held_read.transferred == 100000u);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(Served(*held, held_origin, i * kChunk, kChunk)) << "held, after";

    queue.RunHeld();
    queue.set_mode(TestQueue::Mode::kRun);
    ASSERT_TRUE(queue.WaitIdle());
    for (int i = 3; i < 8; ++i) EXPECT_TRUE(Served(*late, late_origin, i * kChunk, kChunk)) << "late, after";
    ASSERT_TRUE(queue.WaitIdle());
    EXPECT_EQ(late->SetMode('w', late_origin.size(), &late_origin), kOk);
    EXPECT_TRUE(Served(*late, late_origin, kMiB, kChunk)) << "late, writable";
  }
  held.reset();
  late.reset();
  EXPECT_TRUE(SectorCacheFiles(path).empty());
  EXPECT_FALSE(Exists(path + "/late.bin"));
}

}  // namespace
