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
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/small_filesystem.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

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
  const std::string path_ = dir_.path() + "/small";
  std::unique_ptr<SmallFilesystem> disk_;
  ICache_V2* cache_ = nullptr;
};

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
  const std::vector<std::string> files = SectorCacheFiles(path_);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(FileSize(files[0]), S) << "the half-written slot was left in the file";

  // The stored sector serves; the failed one is absent, not half there.
  std::vector<char> cached(static_cast<size_t>(2 * kMiB));
  _READDATA rd = ReadRequest(cached, 0, nullptr);
  EXPECT_EQ(file->Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, static_cast<unsigned long long>(S));
  EXPECT_EQ(FakeOrigin::FirstMismatch(cached.data(), 0, S), -1);
  EXPECT_TRUE(Served(*file, origin, 100, 1000, 5000));
  EXPECT_EQ(ReadAndCheck(*file, origin, S + 100, 1000, 5000).status, kErrRead);
  ReadOutcome whole = ReadAndCheck(*file, origin, 2 * S, 1000, 0, nullptr, true);
  EXPECT_EQ(whole.status, kErrRead);
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(FileSize(files[0]), S);

  disk_->Unfill();
  for (long long at = 0; at < origin.size(); at += kMiB) {
    EXPECT_TRUE(Served(*file, origin, at, static_cast<size_t>(std::min(kMiB, origin.size() - at)), 5000));
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

  const std::vector<char> mine = Pattern(256 * 1024, 'A');
  _WRITEDATA wd = WriteRequest(mine, 1000, origin.size(), &origin);
  EXPECT_EQ(file->Write(&wd), kErrFileWrite);
  EXPECT_EQ(origin.WriteResults(), std::vector<int>{static_cast<int>(kErrFileWrite)});

  const std::vector<char> note = Pattern(100, 'n');
  _WRITEDATA small = WriteRequest(note, 0, 100, &origin);
  EXPECT_EQ(tiny->Write(&small), kErrFileWrite);

  // Whatever a read serves meanwhile is the origin's.
  ReadOutcome during = ReadAndCheck(*file, origin, kMiB, 4096, 0);
  EXPECT_TRUE(during.status == kOk && during.Clean());

  disk_->Unfill();
  EXPECT_TRUE(Served(*file, origin, 0, static_cast<size_t>(origin.size())));

  // file_size is also an answer (the local file's size): set it again.
  wd.transferred = 0;
  wd.file_size = origin.size();
  EXPECT_EQ(file->Write(&wd), kOk);
  EXPECT_EQ(wd.transferred, mine.size());
  std::vector<char> expected = OriginBytes(0, origin.size());
  std::copy(mine.begin(), mine.end(), expected.begin() + 1000);
  EXPECT_TRUE(Served(*file, origin, 0, expected.size(), 0, &expected));

  small.file_size = 100;
  EXPECT_EQ(tiny->Write(&small), kOk);
  EXPECT_TRUE(Served(*tiny, origin, 0, note.size(), 0, &note));
}

}  // namespace
