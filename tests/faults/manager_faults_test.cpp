// Faults met through a manager. Cache-file calls fail one kind at a time
// through the file seam (a full disk, I/O errors, short writes, a file that
// cannot be opened): each failure gives its status code, and once the calls
// work again the same file serves exact bytes with no half-written slot left.
// The origin hangs: reads end in bounded time with a status the library
// defines, and the late data is kept. ReleaseCache while fetches hang: no
// crash, no deadlock, nothing leaked, nothing freed under a running task.
#include <gtest/gtest.h>

#include <cerrno>

#include "cache/sector.h"
#include "support/fake_origin.h"
#include "support/faulty_file_io.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;
constexpr long long S = kSectorSize;

// A manager on a directory of its own, fetching on the test's queue (or on
// the reading thread without one); no clearing pass drops sectors.
class ManagerFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    ASSERT_EQ(InitCache(path_.c_str(), 64 * kMiB, &cache_), kOk);
    Configure(R"({"cache":{"clear":{"period":4000000000}}})");
  }
  void TearDown() override { ReleaseCache(path_.c_str()); }
  void Configure(const char* json) { ASSERT_EQ(cache_->SetConfiguration(json), kOk); }

  // A deadlock fails the test at once.
  Watchdog watchdog_{"a manager fault test", std::chrono::seconds(120)};
  SettingsFile none_{""};
  TempDir dir_;
  const std::string path_ = dir_.path() + "/cache";
  ICache_V2* cache_ = nullptr;
};
using FileIoFaults = ManagerFaultTest;

// What a case does while the call is broken. On a read-only file: a cold
// read that fetches, a whole-file read (no time-out), a read of sectors
// already cached. On a writable file: creating its local copy, a client
// write inside a hole, a read of the local copy, a cut, a read whose hole is
// fetched.
enum class Action { kFetchRead, kWholeRead, kCachedRead, kCreate, kWrite, kLocalRead, kTruncate, kHoleRead };

TEST_F(FileIoFaults, EachFailureGivesItsStatusAndTheSameFileRecovers) {
  using Call = FaultyFileIo::Call;
  // `stored`: the bytes a failing write stores first; `status`: the failing call's.
  const struct { const char* what; Call call; int error; size_t stored; Action action; unsigned int status; }
      cases[] = {
      {"fetched sector cannot be stored: disk full", Call::kWrite, ENOSPC, S / 2, Action::kFetchRead, kErrRead},
      {"fetched sector cannot be flushed", Call::kFlush, ENOSPC, 0, Action::kFetchRead, kErrRead},
      {"whole-file read on a full disk, not waiting", Call::kWrite, ENOSPC, S / 2, Action::kWholeRead, kErrRead},
      {"sector cache file cannot be opened", Call::kOpen, EACCES, 0, Action::kFetchRead, kErrRead},
      {"cached sector cannot be read back", Call::kReadAt, EIO, 0, Action::kCachedRead, kErrFileRead},
      {"local copy cannot be created", Call::kOpen, EACCES, 0, Action::kCreate, kErrCreateFile},
      {"client write on a full disk", Call::kWrite, ENOSPC, 1000, Action::kWrite, kErrFileWrite},
      {"client write that stdio only buffered", Call::kFlush, ENOSPC, 0, Action::kWrite, kErrFileWrite},
      {"local copy cannot be read", Call::kRead, EIO, 0, Action::kLocalRead, kErrRead},
      {"local copy cannot be cut", Call::kTruncate, EIO, 0, Action::kTruncate, kErrFileWrite},
      {"fetched hole cannot be stored", Call::kWrite, ENOSPC, S / 2, Action::kHoleRead, kErrRead},
  };
  // One for the whole test, gone only after the manager: its quota thread
  // may be inside one of its calls at any time.
  FaultyFileIo io;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string name = "faults/file" + std::to_string(&c - cases) + ".bin";
    FakeOrigin origin(3 * S + 1000);
    std::shared_ptr<ICacheObj> file;
    const char mode = c.action >= Action::kCreate ? 'w' : 'r';
    auto open = [&] { file = cache_->Open(name.c_str(), mode, origin.size(), &origin); };
    const std::vector<char> mine = Pattern(S, 'A');  // a partly covered sector at each end
    _WRITEDATA wd = WriteRequest(mine, 1000, origin.size(), &origin);
    const int failures = io.failures();
    if (c.action != Action::kCreate) open();
    if (c.action == Action::kCachedRead || c.action == Action::kLocalRead) {
      ASSERT_TRUE(Served(*file, origin, 0, 2 * S, 5000));
    }
    io.Break(c.call, c.error, c.stored);
    if (c.action == Action::kCreate) {
      EXPECT_EQ(ErrorThrownBy(open), c.status);
    } else if (c.action == Action::kWrite) {
      EXPECT_EQ(file->Write(&wd), c.status);
    } else if (c.action == Action::kTruncate) {
      EXPECT_EQ(file->Truncate(1000), c.status);
    } else {  // a read; the whole-file one where nothing is cached yet
      const bool whole = c.action == Action::kWholeRead;
      EXPECT_EQ(ReadAndCheck(*file, origin, whole ? 2 * S : 0, 2 * S, 5000, nullptr, whole).status, c.status);
    }
    EXPECT_GT(io.failures(), failures) << "the fault was never reached";
    io.Heal();
    if (c.action == Action::kCreate) open();
    std::vector<char> expected = OriginBytes(0, origin.size());
    if (c.action == Action::kWrite) {
      ASSERT_EQ(file->Write(&wd), kOk);
      std::copy(mine.begin(), mine.end(), expected.begin() + 1000);
    }
    EXPECT_TRUE(Served(*file, origin, 7, expected.size() - 7, 5000, &expected));  // from inside a hole
    // Whole slots, but for the file's short last sector, which may end it.
    for (const std::string& slots : SectorCacheFiles(path_)) {
      EXPECT_TRUE(FileSize(slots) % S == 0 || FileSize(slots) % S == origin.size() % S) << "a half slot";
    }
  }
  ReleaseCache(path_.c_str());
}

// The origin hangs. Reads end at the read time-out setting (the request's
// own is 0), also when their fetch cannot start because both workers hang
// (the second read queues sector 0 anew). Reads that would wait for ever (a
// time-out of -1, and a whole-file read, which always waits) end with
// kErrHandleClosed when the client closes its handle on another thread. Once
// the origin lets go, the late deliveries (the whole-file read's covers the
// file) are kept: correct, one slot per sector, not fetched again.
TEST_F(ManagerFaultTest, HangingOriginEndsReadsAtTheTimeOutOrTheHandlesCloseAndLateDataIsKept) {
  Configure(R"({"cache":{"ra":{"hit":1000},"read":{"timeout":100}}})");
  FakeOrigin origin(8 * kMiB);
  std::shared_ptr<ICacheObj> file = cache_->Open("faulty/slow.bin", 'r', origin.size(), &origin);
  TestQueue queue(TestQueue::Mode::kRun, 2);
  OnExit release([&] { origin.Release(); });
  origin.Block();
  for (long long offset : {100LL, 100LL, 4 * kMiB})
    EXPECT_EQ(ReadAndCheck(*file, origin, offset, 1000, 0).status, kErrRead) << "at " << offset;
  for (const bool whole_file : {false, true}) {
    std::shared_ptr<_FS_HANDLE> handle = OpenHandle();
    ReadOutcome read;
    Background reader([&] { read = ReadAndCheck(*file, origin, 6 * kMiB, 5000, -1, handle, whole_file); });
    EXPECT_FALSE(WaitFor([&] { return reader.Done(); }, 50ms)) << "ended while its handle was open";
    CloseClientHandle(handle);
    EXPECT_TRUE(reader.WaitDone(5s));
    EXPECT_EQ(read.status, kErrHandleClosed) << (whole_file ? "whole-file read" : "read without a time-out");
  }
  origin.Release();
  ASSERT_TRUE(queue.WaitIdle());
  origin.ClearRequests();
  EXPECT_EQ(FileSize(SectorCacheFiles(path_).at(0)), origin.size()) << "a sector stored twice";
  EXPECT_TRUE(Served(*file, origin, 7, origin.size() - 7, 1000));
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_TRUE(origin.Requests().empty()) << "late data fetched again";
}

// Two files of one manager when it is released:
//  - "dropped": the client let go of it, but a read-ahead of it hangs in the
//    origin. The manager holds the last reference, so ReleaseCache closes it
//    and must wait for that read-ahead: it returns only once the origin lets
//    go.
//  - "late": held by the client, its read-ahead was queued before the
//    release and starts only after it; it and the file's later reads and
//    mode switch run without the manager.
// Afterwards the client lets go of its objects and every cache file goes.
TEST_F(ManagerFaultTest, ReleaseWaitsForHangingFetchesAndHeldFilesOutliveTheManager) {
  // Read-ahead from the third read of a run on, 1 MiB at a time.
  Configure(R"({"cache":{"ra":{"hit":1,"min":1048576,"max":2097152},"read":{"timeout":10000}}})");
  FakeOrigin dropped_origin(16 * kMiB), late_origin(16 * kMiB + 1);
  std::shared_ptr<ICacheObj> dropped = cache_->Open("load/dropped.bin", 'r', dropped_origin.size(), &dropped_origin);
  std::shared_ptr<ICacheObj> late = cache_->Open("load/late.bin", 'r', late_origin.size(), &late_origin);
  constexpr size_t kChunk = 256 * 1024;
  TestQueue queue(TestQueue::Mode::kRun, 3);
  // Two reads of each run make the history.
  for (int i = 0; i < 2; ++i)
    EXPECT_TRUE(Served(*late, late_origin, i * kChunk, kChunk) && Served(*dropped, dropped_origin, i * kChunk, kChunk));
  ASSERT_TRUE(queue.WaitIdle());

  // The third read is served from the cache; its read-ahead hangs.
  dropped_origin.Block();
  OnExit release_dropped([&] { dropped_origin.Release(); });
  const size_t dropped_requests = dropped_origin.Requests().size();
  EXPECT_TRUE(Served(*dropped, dropped_origin, 2 * kChunk, kChunk)) << "dropped";
  ASSERT_TRUE(dropped_origin.WaitForRequests(dropped_requests + 1));
  dropped.reset();

  queue.set_mode(TestQueue::Mode::kHold);
  EXPECT_TRUE(Served(*late, late_origin, 2 * kChunk, kChunk)) << "late";
  ASSERT_EQ(queue.Held(), 1u);
  Background releaser([&] { EXPECT_EQ(ReleaseCache(path_.c_str()), kOk); });
  EXPECT_FALSE(WaitFor([&] { return releaser.Done(); }, 200ms)) << "ReleaseCache returned under a read-ahead";
  dropped_origin.Release();
  EXPECT_TRUE(releaser.WaitDone(10s));
  // The manager is gone; the client's objects go on.
  queue.RunHeld();
  queue.set_mode(TestQueue::Mode::kRun);
  ASSERT_TRUE(queue.WaitIdle());
  for (int i = 3; i < 8; ++i) EXPECT_TRUE(Served(*late, late_origin, i * kChunk, kChunk)) << "late, after";
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(late->SetMode('w', late_origin.size(), &late_origin), kOk);
  EXPECT_TRUE(Served(*late, late_origin, kMiB, kChunk)) << "late, writable";
  late.reset();
  EXPECT_TRUE(SectorCacheFiles(path_).empty());
  EXPECT_FALSE(Exists(path_ + "/late.bin"));
}

}  // namespace
