// The cache directory on a 4 MiB tmpfs that fills up: writes of fetched and
// of client bytes fail with kErrFileWrite and a log line, nothing half
// written is ever served, and once space is freed the same files work again
// with exact bytes. Needs root (mount); skipped with the reason elsewhere.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cache/sector.h"
#include "faults/fault_support.h"
#include "manager/settings_file.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

using namespace faults;
using namespace std::chrono_literals;
constexpr long long S = kSectorSize;

class FullDiskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
    disk_ = std::make_unique<SmallFilesystem>(path_, 4 * kMiB);
    if (!disk_->mounted()) GTEST_SKIP() << disk_->why();
    ASSERT_EQ(InitCache(path_.c_str(), 64 * kMiB, &cache_), kOk);
  }
  void TearDown() override {
    // Every cache file is closed before the filesystem goes.
    if (cache_ != nullptr) ReleaseCache(path_.c_str());
    disk_.reset();
  }

  SettingsFile none_{""};
  TempDir dir_;
  RecordingLog log_;
  const std::string path_ = dir_.path() + "/small";
  std::unique_ptr<SmallFilesystem> disk_;
  ICache_V2* cache_ = nullptr;
};

// Reads what the sector cache holds without fetching anything.
unsigned long long CachedBytes(ICacheObj& file, long long offset, size_t size, bool* clean) {
  std::vector<char> buffer(size);
  _READDATA rd{buffer.data(), offset, size, 0, OpenHandle(), 0, nullptr, 0, false};
  EXPECT_EQ(file.Read(&rd), kOk);
  *clean = FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)) == -1;
  return rd.transferred;
}

// Room for one slot and a half: the first sector of a fetch is stored, the
// second fails half way. The failed slot is cut off again, never served, and
// the read that needed it fails; so does a whole-file read, instead of
// waiting for ever. With the filler gone the same reads succeed.
TEST_F(FullDiskTest, SectorCacheRefusesSlotsItCannotWriteAndRecoversWhenSpaceReturns) {
  FakeOrigin origin(3 * kMiB + 1000);
  std::shared_ptr<ICacheObj> file = cache_->Open("disk/sectors.bin", 'r', origin.size(), &origin);
  TestQueue queue(TestQueue::Mode::kRun, 2);
  Watchdog watchdog("reads on a full disk", 60s);
  ASSERT_TRUE(disk_->FillLeaving(S + S / 2));

  ReadOutcome first = ReadAndCheck(*file, origin, 0, static_cast<size_t>(2 * kMiB), 5000);
  EXPECT_EQ(first.status, kErrRead);
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(origin.WriteResults(), (std::vector<int>{0, static_cast<int>(kErrFileWrite)}));
  EXPECT_EQ(log_.LevelOf("Fetch write failed : No space left on device"), LOGLEVEL_ERROR);
  const std::vector<std::string> files = SectorCacheFiles(path_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(FileSize(files[0]), S) << "the half-written slot was left in the file";

  // The stored sector serves; the failed one is absent, not half there.
  bool clean = false;
  EXPECT_EQ(CachedBytes(*file, 0, static_cast<size_t>(2 * kMiB), &clean), static_cast<unsigned long long>(S));
  EXPECT_TRUE(clean);
  ReadOutcome stored = ReadAndCheck(*file, origin, 100, 1000, 5000);
  EXPECT_EQ(stored.status, kOk);
  EXPECT_TRUE(stored.Clean());
  EXPECT_EQ(ReadAndCheck(*file, origin, S + 100, 1000, 5000).status, kErrRead);
  ReadOutcome whole = ReadAndCheck(*file, origin, 2 * S, 1000, 0, nullptr, true);
  EXPECT_EQ(whole.status, kErrRead);
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(FileSize(files[0]), S);

  disk_->Unfill();
  for (long long at = 0; at < origin.size(); at += kMiB) {
    const size_t size = static_cast<size_t>(std::min(kMiB, origin.size() - at));
    ReadOutcome r = ReadAndCheck(*file, origin, at, size, 5000);
    EXPECT_EQ(r.status, kOk) << "at " << at;
    EXPECT_TRUE(r.Clean()) << "wrong byte " << r.mismatch << " at " << at;
    EXPECT_EQ(r.transferred, size);
  }
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(FileSize(files[0]), 7 * S);
}

// A client write that needs its sector fetched first, on a disk with 128 KiB
// left: neither the fetched sector nor the write fit, and both say so. A
// small write that stdio would merely buffer fails at once too, instead of
// being lost at a later flush. A hole whose fetch could not be stored stays a
// hole: with space back it is fetched again and everything reads exactly.
TEST_F(FullDiskTest, WritableCacheReportsWritesAndFetchesItCouldNotStore) {
  FakeOrigin origin(2 * kMiB);
  std::shared_ptr<ICacheObj> file = cache_->Open("disk/written.bin", 'w', origin.size(), &origin);
  std::shared_ptr<ICacheObj> tiny = cache_->Open("disk/tiny.txt", 'w', 100, &origin);
  Watchdog watchdog("writes on a full disk", 60s);
  ASSERT_TRUE(disk_->FillLeaving(S / 4));

  std::vector<char> mine(256 * 1024);
  for (size_t i = 0; i < mine.size(); ++i) mine[i] = static_cast<char>('A' + i % 26);
  _WRITEDATA wd{mine.data(), 1000, mine.size(), 0, OpenHandle(), origin.size(), &origin};
  EXPECT_EQ(file->Write(&wd), kErrFileWrite);
  EXPECT_EQ(origin.WriteResults(), std::vector<int>{static_cast<int>(kErrFileWrite)});
  EXPECT_EQ(log_.LevelOf("Fetch write failed : No space left on device"), LOGLEVEL_ERROR);
  EXPECT_EQ(log_.LevelOf("Write failed : No space left on device"), LOGLEVEL_ERROR);

  const std::string note(100, 'n');
  _WRITEDATA small{note.data(), 0, note.size(), 0, OpenHandle(), 100, &origin};
  EXPECT_EQ(tiny->Write(&small), kErrFileWrite);

  // Whatever a read serves meanwhile is the origin's.
  ReadOutcome during = ReadAndCheck(*file, origin, kMiB, 4096, 0);
  EXPECT_EQ(during.status, kOk);
  EXPECT_TRUE(during.Clean());

  disk_->Unfill();
  ReadOutcome after = ReadAndCheck(*file, origin, 0, static_cast<size_t>(origin.size()), 0);
  EXPECT_EQ(after.status, kOk);
  EXPECT_TRUE(after.Clean()) << "wrong byte " << after.mismatch;
  EXPECT_EQ(after.transferred, static_cast<unsigned long long>(origin.size()));

  // file_size is also an answer (the local file's size): set it again.
  wd.transferred = 0;
  wd.file_size = origin.size();
  EXPECT_EQ(file->Write(&wd), kOk);
  EXPECT_EQ(wd.transferred, mine.size());
  std::vector<char> back(static_cast<size_t>(origin.size()));
  _READDATA rd{back.data(), 0, back.size(), 0, OpenHandle(), origin.size(), &origin, 0, false};
  ASSERT_EQ(file->Read(&rd), kOk);
  ASSERT_EQ(rd.transferred, back.size());
  EXPECT_EQ(FakeOrigin::FirstMismatch(back.data(), 0, 1000), -1);
  EXPECT_TRUE(std::equal(mine.begin(), mine.end(), back.begin() + 1000));
  const long long tail = 1000 + static_cast<long long>(mine.size());
  EXPECT_EQ(FakeOrigin::FirstMismatch(back.data() + tail, tail, origin.size() - tail), -1);

  small.file_size = 100;
  EXPECT_EQ(tiny->Write(&small), kOk);
  std::vector<char> note_back(200);
  _READDATA note_rd{note_back.data(), 0, note_back.size(), 0, OpenHandle(), 100, &origin, 0, false};
  ASSERT_EQ(tiny->Read(&note_rd), kOk);
  EXPECT_EQ(std::string(note_back.data(), note_rd.transferred), note);
}

}  // namespace
