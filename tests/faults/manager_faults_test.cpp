// Faults met through a manager with worker threads. The origin fails,
// delivers short, nothing, or past the range asked, or hangs: every read
// ends with a status the library defines, in bounded time, and never serves
// a byte that is not the origin's (deliveries past the range into a writable
// file are checked in writable_cache_test.cpp). Cache files, and the whole
// cache directory, deleted or made unopenable under open files: reads give
// an error status or the origin's bytes (or the client's own), and the
// manager keeps serving the other files. ReleaseCache while fetches hang:
// no crash, no deadlock, nothing leaked, nothing freed under a running task.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "cache/cache_obj.h"
#include "cache/sector.h"
#include "cache/timed_handle.h"
#include "common/clock.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;
using Mode = FakeOrigin::Mode;
constexpr long long S = kSectorSize;

// Distinct sectors that requests [offset, offset + length) touch within a
// file of `size` bytes.
std::set<long long> SectorsRequested(const std::vector<std::pair<long long, long>>& requests, long long size) {
  std::set<long long> sectors;
  for (const auto& r : requests) {
    for (long long s = SectorOf(r.first); s < std::min(r.first + r.second, size); s += S) sectors.insert(s);
  }
  return sectors;
}

// A manager on a directory of its own, fetching on the test's queue; no
// clearing pass drops sectors while a test steps the clock.
class ManagerFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    ASSERT_EQ(InitCache(path_.c_str(), 64 * kMiB, &cache_), kOk);
    Configure(R"({"cache":{"clear":{"period":4000000000}}})");
  }
  void TearDown() override {
    ReleaseCache(path_.c_str());
    ResetClockForTesting();
  }
  void Configure(const char* json) { ASSERT_EQ(cache_->SetConfiguration(json), kOk); }
  // Closes the stream of `file` for idleness, as the quota thread does every
  // few seconds: once the clock has stepped, that thread may be the one that
  // closes it, and either way it is closed when this returns.
  void CloseIdleStream(const std::shared_ptr<ICacheObj>& file) {
    AdvanceClockForTesting(TimedHandle::kIdleTimeout + 1s);
    std::static_pointer_cast<CacheObj>(file)->CheckHandles();
  }

  // A deadlock fails the test at once.
  Watchdog watchdog_{"a manager fault test", std::chrono::seconds(120)};
  SettingsFile none_{""};
  TempDir dir_;
  const std::string path_ = dir_.path() + "/cache";
  ICache_V2* cache_ = nullptr;
};
using OriginFaultTest = ManagerFaultTest;
using VanishedFileTest = ManagerFaultTest;
using ReleaseUnderLoad = ManagerFaultTest;

// A sequential reader with read-ahead in 1 MiB pieces while the origin takes
// turns at every fault. A failed read is retried under the next fault, so
// the reader only moves on when a read succeeds; at the end the whole file
// reads back exactly, with one slot per sector.
TEST_F(OriginFaultTest, FaultyDeliveriesDuringReadAheadCostErrorsNeverWrongBytes) {
  Configure(R"({"cache":{"ra":{"hit":1,"min":1048576,"max":4194304},)"
            R"("read":{"timeout":3000,"maxfetch":1048576}}})");
  FakeOrigin origin(20 * kMiB + 12345);
  std::shared_ptr<ICacheObj> file = cache_->Open("faulty/readahead.bin", 'r', origin.size(), &origin);
  TestQueue queue(TestQueue::Mode::kRun, 2);

  // The fault moves on only after a turn in which the origin was asked, so
  // every fault meets reads and read-aheads that need it.
  const Mode turns[] = {Mode::kNormal, Mode::kFail, Mode::kShort, Mode::kNothing, Mode::kExtra};
  std::map<Mode, int> failed;
  std::map<Mode, size_t> asked;
  const long long chunk = 384 * 1024;  // not a whole number of sectors
  long long offset = 0;
  int fault = 0;
  for (int turn = 0; offset < origin.size(); ++turn) {
    ASSERT_LT(turn, 1000) << "the reader makes no progress";
    const Mode mode = turns[fault % 5];
    origin.set_mode(mode);
    const size_t requests = origin.Requests().size();
    const size_t size = static_cast<size_t>(std::min(chunk, origin.size() - offset));
    ReadOutcome r = ReadAndCheck(*file, origin, offset, size, 0);
    ASSERT_TRUE(r.status == kOk || r.status == kErrRead) << r.status << " at " << offset << ", " << static_cast<int>(mode);
    EXPECT_TRUE(r.Clean()) << "wrong byte " << r.mismatch << " at " << offset << ", " << static_cast<int>(mode);
    // Tasks of this turn end under its fault before the next one starts.
    ASSERT_TRUE(queue.WaitIdle());
    const size_t now_asked = origin.Requests().size() - requests;
    asked[mode] += now_asked;
    if (now_asked > 0) ++fault;
    if (r.status != kOk) {
      ++failed[mode];
      continue;  // retried under the next fault
    }
    EXPECT_EQ(r.transferred, size) << "at " << offset << ", " << static_cast<int>(mode);
    offset += static_cast<long long>(size);
  }
  for (Mode mode : turns) EXPECT_GT(asked[mode], 0u) << static_cast<int>(mode);
  EXPECT_EQ(failed[Mode::kNormal], 0);
  EXPECT_EQ(failed[Mode::kExtra], 0);
  EXPECT_GT(failed[Mode::kFail] + failed[Mode::kShort] + failed[Mode::kNothing], 0);

  // Nothing stayed reserved and nothing cached is wrong: the whole file
  // reads back, and whatever was missing comes again.
  origin.set_mode(Mode::kNormal);
  for (long long at = 0; at < origin.size(); at += kMiB + 333) {
    EXPECT_TRUE(Served(*file, origin, at, static_cast<size_t>(std::min(kMiB + 333, origin.size() - at))));
  }
  ASSERT_TRUE(queue.WaitIdle());
  for (const auto& [at, length] : origin.Requests()) EXPECT_TRUE(at >= 0 && at < origin.size() && length > 0) << at;
  // Every sector has exactly one slot: no slot was lost to a failed fetch or
  // handed out twice after a delivery past the range.
  const std::vector<std::string> files = SectorCacheFiles(path_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(FileSize(files[0]), (origin.size() + S - 1) / S * S);
}

// The origin hangs: reads end at the read time-out setting (the request's
// own is 0), also when their fetch could not even start because every
// worker hangs. The sector a timed-out read waited for is released, so the
// next read queues it anew. Once the origin lets go, the late deliveries are
// kept: correct, one slot per sector, not fetched again.
TEST_F(OriginFaultTest, HangingOriginEndsReadsAtTheReadTimeOutAndLateDataIsKept) {
  Configure(R"({"cache":{"ra":{"hit":1000},"read":{"timeout":100}}})");
  FakeOrigin origin(8 * kMiB);
  std::shared_ptr<ICacheObj> file = cache_->Open("faulty/slow.bin", 'r', origin.size(), &origin);
  TestQueue queue(TestQueue::Mode::kRun, 2);
  OnExit release([&] { origin.Release(); });

  origin.Block();
  auto timed_read = [&](long long offset) {
    const auto started = std::chrono::steady_clock::now();
    ReadOutcome r = ReadAndCheck(*file, origin, offset, 1000, 0);
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(r.status, kErrRead) << "at " << offset;
    EXPECT_GE(waited, 100ms) << "at " << offset;
    EXPECT_LT(waited, 5s) << "at " << offset;
  };
  timed_read(100);
  timed_read(100);  // queues sector 0 again; both workers now hang
  ASSERT_TRUE(origin.WaitForRequests(2));
  timed_read(4 * kMiB);  // its fetch waits behind them

  origin.Release();
  ASSERT_TRUE(queue.WaitIdle());
  const std::set<long long> fetched = SectorsRequested(origin.Requests(), origin.size());
  EXPECT_TRUE(fetched.count(0) && fetched.count(8 * S));
  const std::vector<std::string> files = SectorCacheFiles(path_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(FileSize(files[0]), static_cast<long long>(fetched.size()) * S) << "a sector got two slots";
  origin.ClearRequests();
  for (long long offset : fetched) {
    EXPECT_TRUE(Served(*file, origin, offset + 7, static_cast<size_t>(S - 7), 1000));
  }
  ASSERT_TRUE(queue.WaitIdle());
  // Only the sectors after them (every read reaches 1 MiB ahead) are new.
  std::set<long long> all = SectorsRequested(origin.Requests(), origin.size());
  for (long long offset : all) EXPECT_EQ(fetched.count(offset), 0u) << "fetched again: " << offset;
  all.insert(fetched.begin(), fetched.end());
  EXPECT_EQ(FileSize(files[0]), static_cast<long long>(all.size()) * S);
}

// Reads that would wait for ever (a time-out of -1, and a whole-file read,
// which always waits) end with kErrHandleClosed when the client closes its
// handle while their fetch still hangs. The fetch finishes later and the
// file then serves the origin's bytes without asking again.
TEST_F(OriginFaultTest, ClosingTheHandleEndsReadsThatWaitForAHangingOrigin) {
  TestQueue queue(TestQueue::Mode::kRun, 2);
  for (const bool whole_file : {false, true}) {
    SCOPED_TRACE(whole_file ? "whole-file read" : "read without a time-out");
    FakeOrigin origin(whole_file ? 3 * kMiB + 777 : 6 * kMiB);
    const char* name = whole_file ? "faulty/whole.bin" : "faulty/plain.bin";
    std::shared_ptr<ICacheObj> file = cache_->Open(name, 'r', origin.size(), &origin);
    origin.Block();
    std::shared_ptr<_FS_HANDLE> handle = OpenHandle();
    ReadOutcome read;
    {
      Background reader([&] {
        read = ReadAndCheck(*file, origin, whole_file ? kMiB : 10, 5000, whole_file ? 0 : -1, handle, whole_file);
      });
      OnExit release([&] { origin.Release(); });
      EXPECT_TRUE(origin.WaitForRequests(1));
      EXPECT_FALSE(WaitFor([&] { return reader.Done(); }, 50ms)) << "ended while its handle was open";
      CloseClientHandle(handle);
      EXPECT_TRUE(reader.WaitDone(5s));
    }
    EXPECT_EQ(read.status, kErrHandleClosed);

    ASSERT_TRUE(queue.WaitIdle());
    origin.ClearRequests();
    const long long from = whole_file ? 0 : 10;
    const long long to = whole_file ? origin.size() : 5010;
    for (long long at = from; at < to; at += kMiB) {
      const size_t size = static_cast<size_t>(std::min(kMiB, to - at));
      ReadOutcome r = ReadAndCheck(*file, origin, at, size, 1000, nullptr, whole_file);
      EXPECT_TRUE(r.status == kOk && r.Clean() && r.transferred == size) << "at " << at << ": " << r.status;
    }
    EXPECT_TRUE(origin.Requests().empty());
  }
}

// One sector cache file goes through deletion with its stream open, deletion
// while its stream is closed, and a directory taking its name (a file that
// cannot be opened, as chmod 000 makes it for anyone but root); the other
// files of the manager never notice.
TEST_F(VanishedFileTest, SectorCacheFileDeletedOrReplacedUnderAnOpenFile) {
  FakeOrigin origin(4 * kMiB + 321);
  FakeOrigin other_origin(3 * kMiB);
  std::shared_ptr<ICacheObj> file = cache_->Open("vanish/victim.bin", 'r', origin.size(), &origin);
  std::shared_ptr<ICacheObj> other = cache_->Open("vanish/other.bin", 'r', other_origin.size(), &other_origin);
  TestQueue queue(TestQueue::Mode::kRun, 2);

  EXPECT_TRUE(Served(*file, origin, 0, 2 * kMiB, 5000)) << "first";
  ASSERT_TRUE(queue.WaitIdle());
  const std::string victim = SectorCacheFiles(path_).at(0);
  EXPECT_TRUE(Served(*other, other_origin, 0, kMiB, 5000)) << "other, first";
  ASSERT_EQ(FileSize(victim), 2 * kMiB);

  // Deleted with the stream open: the open stream still holds every slot,
  // and new sectors go there too.
  ASSERT_EQ(unlink(victim.c_str()), 0);
  EXPECT_TRUE(Served(*file, origin, 100, kMiB, 5000)) << "deleted, cached";
  EXPECT_TRUE(Served(*file, origin, 3 * kMiB, origin.size() - 3 * kMiB, 5000)) << "deleted, fetched";
  ASSERT_TRUE(queue.WaitIdle());

  // Deleted and the stream closed: the index is dropped and the bytes come
  // again from the origin into a new file of the same name.
  CloseIdleStream(file);
  origin.ClearRequests();
  EXPECT_TRUE(Served(*file, origin, 0, 2 * kMiB, 5000)) << "deleted, reopened";
  EXPECT_FALSE(origin.Requests().empty());
  ASSERT_TRUE(queue.WaitIdle());

  // A directory takes the name: the file cannot be opened, reads fail.
  CloseIdleStream(file);
  ASSERT_EQ(unlink(victim.c_str()), 0);
  ASSERT_EQ(mkdir(victim.c_str(), 0700), 0);
  for (long long at : {0LL, 3 * kMiB}) EXPECT_EQ(ReadAndCheck(*file, origin, at, 1000, 1000).status, kErrRead) << at;

  // Meanwhile the manager serves the other file and a new one.
  EXPECT_TRUE(Served(*other, other_origin, 0, other_origin.size(), 5000)) << "other, meanwhile";
  FakeOrigin new_origin(kMiB + 5);
  std::shared_ptr<ICacheObj> fresh = cache_->Open("vanish/fresh.bin", 'r', new_origin.size(), &new_origin);
  EXPECT_TRUE(Served(*fresh, new_origin, 0, new_origin.size(), 5000)) << "new file, meanwhile";

  // The name free again: the file starts afresh.
  ASSERT_EQ(rmdir(victim.c_str()), 0);
  EXPECT_TRUE(Served(*file, origin, 0, origin.size(), 5000)) << "name free again";
  ASSERT_TRUE(queue.WaitIdle());
}

// A writable cache file, then the whole directory, removed under an open
// writable file: it goes on through its open stream with the client's and
// the origin's bytes. New files cannot be created meanwhile (kErrCreateFile,
// or kErrRead for a sector cache); with the directory back they can.
TEST_F(VanishedFileTest, WritableCacheFileAndDirectoryRemovedUnderAnOpenFile) {
  FakeOrigin origin(2 * kMiB + 5);
  std::shared_ptr<ICacheObj> file = cache_->Open("vanish/written.bin", 'w', origin.size(), &origin);
  std::vector<char> expected = OriginBytes(0, origin.size());
  auto write = [&](long long offset, size_t size, char seed) {
    const std::vector<char> mine = Pattern(size, seed);
    _WRITEDATA wd = WriteRequest(mine, offset, origin.size(), &origin);
    EXPECT_EQ(file->Write(&wd), kOk) << "at " << offset;
    std::copy(mine.begin(), mine.end(), expected.begin() + offset);
  };

  write(S + 100, 1000, 'a');
  const std::string local = path_ + "/written.bin";
  ASSERT_TRUE(Exists(local));
  ASSERT_EQ(unlink(local.c_str()), 0);
  write(3 * S + 1, 2000, 'k');
  EXPECT_TRUE(Served(*file, origin, 0, expected.size(), 0, &expected)) << "file deleted";

  std::filesystem::remove_all(path_);
  write(10, 10, 'z');
  EXPECT_TRUE(Served(*file, origin, 0, expected.size(), 0, &expected)) << "directory removed";

  EXPECT_EQ(ErrorThrownBy([&] { cache_->Open("vanish/new.bin", 'w', 100, &origin); }), kErrCreateFile);
  FakeOrigin sector_origin(kMiB);
  std::shared_ptr<ICacheObj> sectors = cache_->Open("vanish/sectors.bin", 'r', sector_origin.size(), &sector_origin);
  EXPECT_EQ(ReadAndCheck(*sectors, sector_origin, 0, 1000, 1000).status, kErrRead);

  ASSERT_TRUE(std::filesystem::create_directory(path_));
  EXPECT_TRUE(Served(*sectors, sector_origin, 0, sector_origin.size(), 5000)) << "directory back";
  std::shared_ptr<ICacheObj> created = cache_->Open("vanish/new.bin", 'w', 100, &origin);
  ASSERT_TRUE(created);
  EXPECT_TRUE(Served(*file, origin, 0, expected.size(), 0, &expected)) << "directory back";
}

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
TEST_F(ReleaseUnderLoad, ReleaseWaitsForHangingFetchesAndHeldFilesOutliveTheManager) {
  // Read-ahead from the third read of a run on, 1 MiB at a time.
  Configure(R"({"cache":{"ra":{"hit":1,"min":1048576,"max":2097152},"read":{"timeout":10000}}})");
  FakeOrigin dropped_origin(16 * kMiB);
  FakeOrigin held_origin(16 * kMiB + 99);
  FakeOrigin late_origin(16 * kMiB + 1);
  std::shared_ptr<ICacheObj> dropped = cache_->Open("load/dropped.bin", 'r', dropped_origin.size(), &dropped_origin);
  std::shared_ptr<ICacheObj> held = cache_->Open("load/held.bin", 'r', held_origin.size(), &held_origin);
  std::shared_ptr<ICacheObj> late = cache_->Open("load/late.bin", 'r', late_origin.size(), &late_origin);
  constexpr size_t kChunk = 256 * 1024;
  {
    TestQueue queue(TestQueue::Mode::kRun, 3);

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
      Background releaser([&] { EXPECT_EQ(ReleaseCache(path_.c_str()), kOk); });
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
  EXPECT_TRUE(SectorCacheFiles(path_).empty());
  EXPECT_FALSE(Exists(path_ + "/late.bin"));
}

}  // namespace
