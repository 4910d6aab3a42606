// Cache files, and the whole cache directory, deleted or made unopenable
// under open files: reads give an error status or the origin's bytes (or the
// client's own, in a writable file), never anything else, and the manager
// keeps serving the other files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

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
constexpr long long S = kSectorSize;

class VanishedFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    ASSERT_EQ(InitCache(path_.c_str(), 64 * kMiB, &cache_), kOk);
    // No clearing pass may drop sectors while the clock is stepped.
    ASSERT_EQ(cache_->SetConfiguration(R"({"cache":{"clear":{"period":4000000000}}})"), kOk);
  }
  void TearDown() override {
    ReleaseCache(path_.c_str());
    ResetClockForTesting();
  }

  // Lets the stream of `file` be closed for idleness, as the quota thread does every few seconds.
  void CloseIdleStream(const std::shared_ptr<ICacheObj>& file) {
    AdvanceClockForTesting(TimedHandle::kIdleTimeout + 1s);
    ASSERT_TRUE(std::static_pointer_cast<CacheObj>(file)->CheckHandles());
  }

  SettingsFile none_{""};
  TempDir dir_;
  const std::string path_ = dir_.path() + "/cache";
  ICache_V2* cache_ = nullptr;
};

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
  Watchdog watchdog("reads of vanished cache files", 60s);

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
  Watchdog watchdog("a writable file without its directory", 60s);
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

}  // namespace
