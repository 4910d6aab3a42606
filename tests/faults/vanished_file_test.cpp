// Cache files, and the whole cache directory, deleted or made unopenable
// under open files: reads give an error status or the origin's bytes (or the
// client's own, in a writable file), never anything else, and the manager
// keeps serving the other files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "cache/cache_manager.h"
#include "cache/cache_obj.h"
#include "cache/sector.h"
#include "cache/timed_handle.h"
#include "common/clock.h"
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

  // Reads `size` bytes at `offset` and expects the origin's, all of them.
  void ExpectServed(ICacheObj& file, FakeOrigin& origin, long long offset, size_t size, const char* when) {
    ReadOutcome r = ReadAndCheck(file, origin, offset, size, 5000);
    EXPECT_EQ(r.status, kOk) << when << ", at " << offset;
    EXPECT_TRUE(r.Clean()) << when << ", wrong byte " << r.mismatch << " at " << offset;
    EXPECT_EQ(r.transferred, size) << when << ", at " << offset;
  }

  // Lets the stream of `file` (whose cache file is `cache_path`) be closed
  // for idleness, as the quota thread does every few seconds.
  void CloseIdleStream(const std::shared_ptr<ICacheObj>& file, const std::string& cache_path) {
    const int closed = log_.Count("[" + cache_path + "] Cache handle closed");
    AdvanceClockForTesting(TimedHandle::kIdleTimeout + 1s);
    std::static_pointer_cast<CacheObj>(file)->CheckHandles();
    ASSERT_EQ(log_.Count("[" + cache_path + "] Cache handle closed"), closed + 1);
  }

  SettingsFile none_{""};
  TempDir dir_;
  RecordingLog log_;
  const std::string path_ = dir_.path() + "/cache";
  ICache_V2* cache_ = nullptr;
};

// One sector cache file goes through deletion with its stream open, deletion
// while its stream is closed, and a directory taking its name (which is what
// chmod 000 amounts to for anyone but root); the other files of the manager
// never notice.
TEST_F(VanishedFileTest, SectorCacheFileDeletedOrReplacedUnderAnOpenFile) {
  FakeOrigin origin(4 * kMiB + 321);
  FakeOrigin other_origin(3 * kMiB);
  std::shared_ptr<ICacheObj> file = cache_->Open("vanish/victim.bin", 'r', origin.size(), &origin);
  std::shared_ptr<ICacheObj> other = cache_->Open("vanish/other.bin", 'r', other_origin.size(), &other_origin);
  TestQueue queue(TestQueue::Mode::kRun, 2);
  Watchdog watchdog("reads of vanished cache files", 60s);

  ExpectServed(*file, origin, 0, static_cast<size_t>(2 * kMiB), "first");
  ExpectServed(*other, other_origin, 0, static_cast<size_t>(kMiB), "other, first");
  std::vector<std::string> files = SectorCacheFiles(path_);
  ASSERT_EQ(files.size(), 2u);
  ASSERT_TRUE(queue.WaitIdle());
  // The victim's file is the one that is 2 MiB long.
  const std::string victim = FileSize(files[0]) == 2 * kMiB ? files[0] : files[1];
  ASSERT_EQ(FileSize(victim), 2 * kMiB);

  // Deleted with the stream open: the open stream still holds every slot,
  // and new sectors go there too.
  ASSERT_EQ(unlink(victim.c_str()), 0);
  ExpectServed(*file, origin, 100, static_cast<size_t>(kMiB), "deleted, cached");
  ExpectServed(*file, origin, 3 * kMiB, static_cast<size_t>(origin.size() - 3 * kMiB), "deleted, fetched");
  ASSERT_TRUE(queue.WaitIdle());

  // Deleted and the stream closed: the index is dropped and the bytes come
  // again from the origin into a new file of the same name.
  CloseIdleStream(file, victim);
  origin.ClearRequests();
  ExpectServed(*file, origin, 0, static_cast<size_t>(2 * kMiB), "deleted, reopened");
  EXPECT_EQ(log_.Count("Cache file is deleted. Clear cache information. : " + victim), 1);
  EXPECT_FALSE(origin.Requests().empty());
  ASSERT_TRUE(queue.WaitIdle());

  // A directory takes the name: the file cannot be opened, reads fail.
  CloseIdleStream(file, victim);
  ASSERT_EQ(unlink(victim.c_str()), 0);
  ASSERT_EQ(mkdir(victim.c_str(), 0700), 0);
  for (long long at : {0LL, 3 * kMiB}) {
    ReadOutcome r = ReadAndCheck(*file, origin, at, 1000, 1000);
    EXPECT_EQ(r.status, kErrRead) << "at " << at;
  }
  EXPECT_EQ(log_.LevelOf("[CACHE     ] Cache open has failed : " + victim), LOGLEVEL_ERROR);

  // Meanwhile the manager serves the other file and a new one.
  ExpectServed(*other, other_origin, 0, static_cast<size_t>(other_origin.size()), "other, meanwhile");
  FakeOrigin new_origin(kMiB + 5);
  std::shared_ptr<ICacheObj> fresh = cache_->Open("vanish/fresh.bin", 'r', new_origin.size(), &new_origin);
  ExpectServed(*fresh, new_origin, 0, static_cast<size_t>(new_origin.size()), "new file, meanwhile");

  // The name free again: the file starts afresh.
  ASSERT_EQ(rmdir(victim.c_str()), 0);
  ExpectServed(*file, origin, 0, static_cast<size_t>(origin.size()), "name free again");
  ASSERT_TRUE(queue.WaitIdle());
}

// chmod 000 on a cache file whose stream is closed. Root opens the file all
// the same, so this runs only for other users.
TEST_F(VanishedFileTest, UnreadableSectorCacheFileFailsReadsUntilReadableAgain) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "root opens a file whatever its mode; the directory-in-its-place case of "
                    "SectorCacheFileDeletedOrReplacedUnderAnOpenFile covers the open failure";
  }
  FakeOrigin origin(2 * kMiB);
  std::shared_ptr<ICacheObj> file = cache_->Open("vanish/locked.bin", 'r', origin.size(), &origin);
  ExpectServed(*file, origin, 0, static_cast<size_t>(kMiB), "first");
  const std::vector<std::string> files = SectorCacheFiles(path_);
  ASSERT_EQ(files.size(), 1u);
  CloseIdleStream(file, files[0]);
  ASSERT_EQ(chmod(files[0].c_str(), 0), 0);
  EXPECT_EQ(ReadAndCheck(*file, origin, 0, 1000, 1000).status, kErrRead);
  EXPECT_EQ(log_.LevelOf("[CACHE     ] Cache open has failed : " + files[0]), LOGLEVEL_ERROR);
  ASSERT_EQ(chmod(files[0].c_str(), 0600), 0);
  origin.ClearRequests();
  ExpectServed(*file, origin, 0, static_cast<size_t>(kMiB), "readable again");
  EXPECT_TRUE(origin.Requests().empty());  // the index survived
}

// A writable cache file, then the whole directory, removed under an open
// writable file: it goes on through its open stream with the client's and
// the origin's bytes. New files cannot be created meanwhile (kErrCreateFile,
// or kErrRead for a sector cache); with the directory back they can.
TEST_F(VanishedFileTest, WritableCacheFileAndDirectoryRemovedUnderAnOpenFile) {
  FakeOrigin origin(2 * kMiB + 5);
  std::shared_ptr<ICacheObj> file = cache_->Open("vanish/written.bin", 'w', origin.size(), &origin);
  Watchdog watchdog("a writable file without its directory", 60s);
  std::vector<char> expected(static_cast<size_t>(origin.size()));
  for (long long i = 0; i < origin.size(); ++i) expected[static_cast<size_t>(i)] = FakeOrigin::ByteAt(i);
  auto write = [&](long long offset, size_t size, char seed) {
    std::vector<char> mine(size);
    for (size_t i = 0; i < size; ++i) mine[i] = static_cast<char>(seed + i % 19);
    _WRITEDATA wd{mine.data(), offset, size, 0, OpenHandle(), origin.size(), &origin};
    EXPECT_EQ(file->Write(&wd), kOk) << "at " << offset;
    std::copy(mine.begin(), mine.end(), expected.begin() + offset);
  };
  auto expect_contents = [&](const char* when) {
    std::vector<char> back(expected.size());
    _READDATA rd{back.data(), 0, back.size(), 0, OpenHandle(), origin.size(), &origin, 0, false};
    ASSERT_EQ(file->Read(&rd), kOk) << when;
    ASSERT_EQ(rd.transferred, back.size()) << when;
    EXPECT_TRUE(back == expected) << when;
  };

  write(S + 100, 1000, 'a');
  const std::string local = path_ + "/written.bin";
  ASSERT_TRUE(std::filesystem::exists(local));
  ASSERT_EQ(unlink(local.c_str()), 0);
  write(3 * S + 1, 2000, 'k');
  expect_contents("file deleted");

  std::filesystem::remove_all(path_);
  write(10, 10, 'z');
  expect_contents("directory removed");

  AERROR thrown = kOk;
  try {
    cache_->Open("vanish/new.bin", 'w', 100, &origin);
  } catch (AERROR error) {
    thrown = error;
  }
  EXPECT_EQ(thrown, kErrCreateFile);
  EXPECT_EQ(log_.LevelOf("[CACHE     ] Cache creation has failed : " + path_ + "/new.bin"), LOGLEVEL_ERROR);
  FakeOrigin sector_origin(kMiB);
  std::shared_ptr<ICacheObj> sectors = cache_->Open("vanish/sectors.bin", 'r', sector_origin.size(), &sector_origin);
  EXPECT_EQ(ReadAndCheck(*sectors, sector_origin, 0, 1000, 1000).status, kErrRead);
  EXPECT_TRUE(log_.Contains("[CACHE     ] Cache open has failed : " + path_ + "/"));

  ASSERT_TRUE(std::filesystem::create_directory(path_));
  ExpectServed(*sectors, sector_origin, 0, static_cast<size_t>(sector_origin.size()), "directory back");
  std::shared_ptr<ICacheObj> created = cache_->Open("vanish/new.bin", 'w', 100, &origin);
  ASSERT_TRUE(created);
  expect_contents("directory back");
}

}  // namespace
