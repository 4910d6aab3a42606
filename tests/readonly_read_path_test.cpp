// The read path of the sector cache: what is fetched, where it lands on disk,
// and how reads end when the origin, the queue or the client misbehave.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <fstream>
#include <iterator>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "cache/default_settings.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

constexpr long long kMiB = 1048576;
using Range = std::pair<long long, long>;

_READDATA Request(std::vector<char>& buffer, long long offset, FakeOrigin* origin, long long timeout = 0) {
  return _READDATA{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(),
                   origin != nullptr ? origin->size() : 0, origin, timeout, false};
}

std::vector<char> OriginBytes(long long offset, long long length) {
  std::vector<char> bytes(static_cast<size_t>(length));
  for (long long i = 0; i < length; ++i) bytes[static_cast<size_t>(i)] = FakeOrigin::ByteAt(offset + i);
  return bytes;
}

// True when the slot at `slot` of `file` holds `valid` origin bytes from
// `origin_offset`, followed by zeros up to the slot's end.
bool SlotHolds(const std::string& file, long long slot, long long origin_offset, long long valid) {
  if (static_cast<long long>(file.size()) < slot + kSectorSize) return false;
  if (FakeOrigin::FirstMismatch(file.data() + slot, origin_offset, valid) != -1) return false;
  for (long long i = valid; i < kSectorSize; ++i)
    if (file[static_cast<size_t>(slot + i)] != 0) return false;
  return true;
}

class ReadPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    Configure([](_CACHECONFIG& conf) { conf.rahit = 1000; });  // keeps read-ahead out of the ranges asserted
  }
  void TearDown() override { ResetClockForTesting(); }
  std::string Dir() const { return dir_.path() + "/"; }
  template <typename Change>
  void Configure(Change change) {
    _CACHECONFIG conf = config_.GetConfig();
    change(conf);
    config_.Set(conf);
  }

  // Reads through the cache; returns the result and checks the bytes served.
  unsigned int ReadChecked(ReadonlyCache& cache, long long offset, long long size, FakeOrigin* origin,
                           long long timeout = 0) {
    std::vector<char> buffer(static_cast<size_t>(size));
    _READDATA rd = Request(buffer, offset, origin, timeout);
    unsigned int result = cache.Read(&rd);
    EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)), -1)
        << "at offset " << offset;
    got_ = static_cast<long long>(rd.transferred);
    return result;
  }
  // A read that must succeed; returns how many bytes it served.
  long long Served(ReadonlyCache& cache, long long offset, long long size, FakeOrigin* origin = nullptr) {
    EXPECT_EQ(ReadChecked(cache, offset, size, origin), kOk) << "at offset " << offset;
    return got_;
  }

  TempDir dir_;
  FakeConfig config_;
  RecordingLog log_;
  long long got_ = 0;
};

TEST_F(ReadPathTest, FetchesAMiBFromTheOffsetInMergedRunsWithinTheFile) {
  FakeOrigin origin(10 * kMiB);
  ReadonlyCache cache(Dir(), "ranges.bin", origin.size(), &config_);
  // An unaligned small read reaches one MiB past its offset: three sectors.
  EXPECT_EQ(Served(cache, kMiB + 10, 100, &origin), 100);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{kMiB, 3 * kSectorSize}}));
  // A large read fetches its own length; cached sectors split it into runs.
  origin.ClearRequests();
  EXPECT_EQ(Served(cache, 0, 3 * kMiB, &origin), 3 * kMiB);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}, {5 * kSectorSize, kSectorSize}}));
  // Near the end nothing past the file size is asked for.
  origin.ClearRequests();
  EXPECT_EQ(Served(cache, 10 * kMiB - 100, 100, &origin), 100);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{10 * kMiB - kSectorSize, kSectorSize}}));
}

TEST_F(ReadPathTest, SlotsFollowFetchOrderAndTheShortLastSectorIsZeroPadded) {
  FakeOrigin origin(1000000);
  ReadonlyCache cache(Dir(), "short.bin", origin.size(), &config_);
  EXPECT_FALSE(Exists(cache.GetCachePath()));
  Served(cache, 600000, 100, &origin);  // the last sector only
  Served(cache, 0, 100, &origin);       // then the first
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{kSectorSize, kSectorSize}, {0, kSectorSize}}));
  std::string file = FileContents(cache.GetCachePath());
  ASSERT_EQ(static_cast<long long>(file.size()), 2 * kSectorSize);
  EXPECT_TRUE(SlotHolds(file, 0, kSectorSize, 475712));  // origin sector 1 went first
  EXPECT_TRUE(SlotHolds(file, kSectorSize, 0, kSectorSize));
  // Reads across the slots and up to the end of the file see origin bytes only.
  origin.ClearRequests();
  EXPECT_EQ(Served(cache, 999950, 100, &origin), 50);
  EXPECT_EQ(Served(cache, 0, 1000000, &origin), 1000000);
  EXPECT_TRUE(origin.Requests().empty());
}

TEST_F(ReadPathTest, ReadWithoutFetcherServesOnlySettledSectors) {
  ReadonlyCache cache(Dir(), "nofetch.bin", 4 * kMiB, &config_);
  long written = -1;
  ASSERT_EQ(cache.FetchWrite(0, OriginBytes(0, kSectorSize).data(), kSectorSize, &written), 0);
  // 1,000 valid bytes still take a whole slot.
  ASSERT_EQ(cache.FetchWrite(kMiB, OriginBytes(kMiB, 1000).data(), 1000, &written), 0);
  EXPECT_EQ(written, 1000);
  ASSERT_EQ(cache.FetchWrite(3 * kSectorSize, OriginBytes(3 * kSectorSize, kSectorSize).data(), kSectorSize,
                             nullptr),
            0);
  ASSERT_EQ(cache.Reserve(2 * kMiB, kSectorSize), kOk);
  EXPECT_EQ(cache.GetFileSize(), 3 * kSectorSize);

  EXPECT_EQ(Served(cache, 0, kMiB), kSectorSize);  // stops at the absent sector
  EXPECT_EQ(Served(cache, kSectorSize + 7, 100), 0);
  // The short sector ends the copy: the next sector's bytes never shift in.
  EXPECT_EQ(Served(cache, kMiB, kMiB), 1000);
  EXPECT_EQ(Served(cache, 3 * kSectorSize, kMiB), kSectorSize);
  EXPECT_EQ(Served(cache, 2 * kMiB, 100), 0);  // a reserved sector holds nothing yet
}

TEST_F(ReadPathTest, ReservationsAndUnalignedFetchWrites) {
  ReadonlyCache cache(Dir(), "reserve.bin", 8 * kMiB, &config_);
  // Reservations made before the file first exists are kept when it opens.
  EXPECT_EQ(cache.Reserve(100, kSectorSize), kErrUnaligned);
  EXPECT_EQ(cache.Reserve(0, kMiB), kOk);
  EXPECT_EQ(cache.Reserve(0, kMiB), kNothingReserved);  // reserved entries count as present
  EXPECT_EQ(cache.Reserve(kSectorSize, kMiB), kOk);     // one new sector at 1 MiB

  // No entry for the sector of an unaligned offset: refused, no slot used.
  std::vector<char> data = OriginBytes(4 * kMiB, 1000);
  EXPECT_EQ(cache.FetchWrite(3 * kMiB + 100, data.data(), 1000, nullptr), static_cast<int>(kErrUnaligned));
  EXPECT_EQ(log_.LevelOf("Fetch write failed : Cache offset was not aligned"), LOGLEVEL_ERROR);
  EXPECT_EQ(cache.GetFileSize(), 0);

  // A reserved sector takes an unaligned write at its slot's start.
  ASSERT_EQ(cache.FetchWrite(100, data.data(), 1000, nullptr), 0);
  std::vector<char> buffer(2000);
  _READDATA rd = Request(buffer, 0, nullptr);
  ASSERT_EQ(cache.Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 1000u);
  EXPECT_EQ(std::vector<char>(buffer.begin(), buffer.begin() + 1000), data);
  EXPECT_EQ(cache.GetFileSize(), kSectorSize);

  // Clearing drops only what is still reserved.
  EXPECT_EQ(cache.ClearReserved(0, 3 * kSectorSize), kOk);
  EXPECT_EQ(cache.Reserve(0, kSectorSize), kNothingReserved);
  EXPECT_EQ(cache.Reserve(kSectorSize, kMiB), kOk);
}

// Points the cache's stream at a read-only descriptor of the same file for
// the life of the object, so that writes through it fail as on a full disk.
class ReadOnlyStream {
 public:
  explicit ReadOnlyStream(ReadonlyCache& cache) {
    std::shared_ptr<FILE> stream = cache.GetHandle();
    fd_ = fileno(stream.get());
    saved_ = dup(fd_);
    int read_only = open(cache.GetCachePath().c_str(), O_RDONLY);
    dup2(read_only, fd_);
    close(read_only);
  }
  ~ReadOnlyStream() {
    dup2(saved_, fd_);
    close(saved_);
  }

 private:
  int fd_ = -1;
  int saved_ = -1;
};

TEST_F(ReadPathTest, FailedWritesLeaveNoSharedSlotsAndFreedSlotsAreReused) {
  FakeOrigin origin(8 * kMiB);
  ReadonlyCache cache(Dir(), "reuse.bin", origin.size(), &config_);
  Served(cache, 0, 100, &origin);  // slots 0 and 1

  // A fetch write that fails leaves its sector reserved.
  ASSERT_EQ(cache.Reserve(2 * kMiB, kSectorSize), kOk);
  {
    ReadOnlyStream broken(cache);
    EXPECT_EQ(cache.FetchWrite(2 * kMiB, OriginBytes(2 * kMiB, kSectorSize).data(), kSectorSize, nullptr),
              static_cast<int>(kErrFileWrite));
  }
  EXPECT_EQ(log_.LevelOf("Fetch write failed : "), LOGLEVEL_ERROR);
  EXPECT_EQ(cache.Reserve(2 * kMiB, kSectorSize), kNothingReserved);
  EXPECT_EQ(Served(cache, 2 * kMiB, 100), 0);

  // Sectors appended meanwhile, and the failed one fetched once its
  // reservation is cleared, must each get a slot of their own.
  Served(cache, kMiB, 100, &origin);
  EXPECT_EQ(cache.ClearReserved(2 * kMiB, kSectorSize), kOk);
  Served(cache, 2 * kMiB, 100, &origin);
  EXPECT_EQ(Served(cache, kMiB, 2 * kMiB), 2 * kMiB);
  EXPECT_EQ(cache.GetFileSize(), 3 * kMiB);

  // A move that fails during eviction leaves free slots listed below the
  // end of the file; the sectors stay where they were.
  AdvanceClockForTesting(std::chrono::seconds(200));
  Served(cache, 2 * kMiB, kMiB);  // young again
  Configure([](_CACHECONFIG& conf) { conf.clrunused = 100; });
  {
    ReadOnlyStream broken(cache);
    cache.ClearOldCache(false);
  }
  EXPECT_TRUE(log_.Contains("ClearOldCache : OK, 3145728 => 3145728"));
  EXPECT_EQ(Served(cache, 2 * kMiB, kMiB), kMiB);

  // Free slots 512 KiB, 1 MiB and 1.5 MiB are used before the file grows; a
  // slot taken by a reservation comes back when it is cleared.
  ASSERT_EQ(cache.Reserve(4 * kMiB, kSectorSize), kOk);
  EXPECT_EQ(cache.ClearReserved(4 * kMiB, kSectorSize), kOk);
  Served(cache, 5 * kMiB, 100, &origin);
  Served(cache, 6 * kMiB, 100, &origin);
  EXPECT_EQ(cache.GetFileSize(), 7 * kSectorSize);
  std::string file = FileContents(cache.GetCachePath());
  EXPECT_TRUE(SlotHolds(file, kSectorSize, 6 * kMiB, kSectorSize));
  EXPECT_TRUE(SlotHolds(file, kMiB, 5 * kMiB, kSectorSize));
  EXPECT_TRUE(SlotHolds(file, 3 * kSectorSize, 11 * kSectorSize, kSectorSize));
  EXPECT_TRUE(SlotHolds(file, 3 * kMiB, 13 * kSectorSize, kSectorSize));
}

TEST_F(ReadPathTest, TimedOutReadClearsItsReservationSoALaterReadQueuesAgain) {
  FakeOrigin origin(4 * kMiB);
  ReadonlyCache cache(Dir(), "timeout.bin", origin.size(), &config_);
  TestQueue queue(TestQueue::Mode::kHold);
  EXPECT_EQ(ReadChecked(cache, 0, 100, &origin, 50), kErrRead);
  EXPECT_EQ(queue.Held(), 1u);
  EXPECT_EQ(log_.LevelOf("Read timed-out"), LOGLEVEL_ERROR);

  // Sector 0 is absent again, so this read queues it anew instead of waiting
  // for the held task; sector 1 is still reserved by that task.
  queue.set_mode(TestQueue::Mode::kRun);
  EXPECT_EQ(ReadChecked(cache, 0, 100, &origin, 5000), kOk);
  EXPECT_EQ(queue.Enqueued(), 2);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kSectorSize}}));
  queue.RunHeld();
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(Served(cache, 0, kMiB), kMiB);

  // A time-out of 0 means the configured one.
  Configure([](_CACHECONFIG& conf) { conf.readtimeout = 30; });
  queue.set_mode(TestQueue::Mode::kHold);
  EXPECT_EQ(ReadChecked(cache, 2 * kMiB, 100, &origin, 0), kErrRead);
  EXPECT_EQ(log_.Count("Read timed-out"), 2);
}

TEST_F(ReadPathTest, ClosingTheClientHandleEndsAWaitingReadAndSilencesItsFetch) {
  FakeOrigin origin(4 * kMiB);
  ReadonlyCache cache(Dir(), "closed.bin", origin.size(), &config_);
  TestQueue queue(TestQueue::Mode::kHold);
  std::vector<char> buffer(100);
  _READDATA rd = Request(buffer, 0, &origin, -1);
  unsigned int result = 0;
  std::thread reader([&] { result = cache.Read(&rd); });
  for (int i = 0; i < 500 && queue.Held() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  ASSERT_EQ(queue.Held(), 1u);
  __atomic_store_n(&rd.handle->state, 3, __ATOMIC_RELAXED);  // as a client closes it, under the reader's poll
  reader.join();
  EXPECT_EQ(result, kErrHandleClosed);
  EXPECT_EQ(log_.LevelOf("Read failed : Handle closed before return"), LOGLEVEL_ERROR);
  EXPECT_EQ(cache.Reserve(0, kSectorSize), kOk);  // its own sector was released
  EXPECT_EQ(cache.ClearReserved(0, kSectorSize), kOk);

  // The fetch that still runs for it fails quietly and releases the rest.
  origin.set_mode(FakeOrigin::Mode::kFail);
  queue.RunHeld();
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_FALSE(log_.Contains("Read-ahead failed"));
  EXPECT_EQ(cache.Reserve(kSectorSize, kSectorSize), kOk);
}

// Records the client handle each fetch is made with.
class HandleRecordingOrigin : public FakeOrigin {
 public:
  using FakeOrigin::FakeOrigin;
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override {
    {
      std::lock_guard<std::mutex> guard(lock_);
      handles.push_back(handle);
    }
    return FakeOrigin::Fetch(offset, length, std::move(handle), callback);
  }
  std::mutex lock_;
  std::vector<std::shared_ptr<_FS_HANDLE>> handles;
};

TEST_F(ReadPathTest, WholeFileReadIsOneRequestMadeWithTheCachesOwnHandle) {
  Configure([](_CACHECONFIG& conf) { conf.readfetchmax = kMiB; });  // must not split a whole-file fetch
  HandleRecordingOrigin origin(3 * kMiB + 1000);
  ReadonlyCache cache(Dir(), "whole.bin", origin.size(), &config_);
  TestQueue queue(TestQueue::Mode::kRun);
  auto whole_file_read = [&](long long offset, std::shared_ptr<_FS_HANDLE>* client) {
    std::vector<char> buffer(100);
    _READDATA rd = Request(buffer, offset, &origin);
    rd.whole_file = true;
    rd.handle->type = 1;
    rd.handle->id = 77;
    rd.handle->info = "client-info";
    EXPECT_EQ(cache.Read(&rd), kOk);
    EXPECT_EQ(rd.transferred, 100u);
    EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), offset, 100), -1);
    if (client != nullptr) *client = rd.handle;
  };
  std::shared_ptr<_FS_HANDLE> client;
  whole_file_read(2 * kMiB, &client);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, static_cast<long>(origin.size())}}));
  EXPECT_EQ(log_.LevelOf("Trying to fetch whole file(3146728 bytes)."), LOGLEVEL_INFO);
  {
    std::lock_guard<std::mutex> guard(origin.lock_);
    ASSERT_EQ(origin.handles.size(), 1u);
    const std::shared_ptr<_FS_HANDLE>& h = origin.handles[0];
    EXPECT_NE(h, client);
    EXPECT_EQ(std::make_tuple(h->type, h->id, h->info), std::make_tuple(2, int64_t{0}, std::string("client-info")));
  }
  // Everything is cached: a second whole-file read fetches nothing.
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(cache.GetFileSize(), 7 * kSectorSize);
  whole_file_read(3 * kMiB + 900, nullptr);
  EXPECT_EQ(origin.Requests().size(), 1u);
}

TEST_F(ReadPathTest, OriginThatFailsOrDeliversTheWrongAmount) {
  FakeOrigin origin(8 * kMiB);
  ReadonlyCache cache(Dir(), "faulty.bin", origin.size(), &config_);
  origin.set_mode(FakeOrigin::Mode::kFail);
  EXPECT_EQ(ReadChecked(cache, 0, 100, &origin), kErrRead);
  EXPECT_EQ(log_.LevelOf("Read-ahead failed : 0, 1048576"), LOGLEVEL_ERROR);
  origin.set_mode(FakeOrigin::Mode::kNothing);
  EXPECT_EQ(ReadChecked(cache, kMiB, 100, &origin), kErrRead);
  EXPECT_EQ(log_.Count("Read-ahead failed"), 1);  // success without data is not a failure

  // Nothing was left reserved: the same reads succeed once the origin works.
  origin.set_mode(FakeOrigin::Mode::kNormal);
  origin.ClearRequests();
  Served(cache, 0, 100, &origin);
  Served(cache, kMiB, 100, &origin);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}, {kMiB, kMiB}}));

  // Half of the range arrives: the read fails, a retry fetches the rest.
  origin.set_mode(FakeOrigin::Mode::kShort);
  origin.ClearRequests();
  EXPECT_EQ(ReadChecked(cache, 3 * kMiB, kMiB, &origin), kErrRead);
  EXPECT_EQ(Served(cache, 3 * kMiB, kMiB, &origin), kMiB);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{3 * kMiB, kMiB}, {7 * kSectorSize, kSectorSize}}));

  // One sector more than asked for is kept and not fetched again.
  origin.set_mode(FakeOrigin::Mode::kExtra);
  origin.ClearRequests();
  Served(cache, 5 * kMiB, 100, &origin);
  origin.set_mode(FakeOrigin::Mode::kNormal);
  EXPECT_EQ(Served(cache, 6 * kMiB + 10, kSectorSize, &origin), kSectorSize);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{5 * kMiB, kMiB}, {13 * kSectorSize, kMiB}}));
}

TEST_F(ReadPathTest, DroppedFetchesReleaseTheirSectors) {
  FakeOrigin origin(4 * kMiB);
  ReadonlyCache cache(Dir(), "dropped.bin", origin.size(), &config_);
  TestQueue queue(TestQueue::Mode::kDrop);
  EXPECT_EQ(ReadChecked(cache, 0, 100, &origin, 30000), kErrRead);
  EXPECT_EQ(log_.LevelOf("Read failed : Sector 0 not found on sector hash"), LOGLEVEL_ERROR);
  EXPECT_FALSE(log_.Contains("Read timed-out"));
  ASSERT_TRUE(queue.WaitIdle());
  EXPECT_EQ(cache.Reserve(0, kMiB), kOk);  // both sectors were released
  EXPECT_EQ(cache.ClearReserved(0, kMiB), kOk);
  queue.set_mode(TestQueue::Mode::kRun);
  EXPECT_EQ(Served(cache, 0, 100, &origin), 100);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}}));
}

TEST_F(ReadPathTest, CacheFileDeletedWhileClosedForIdlenessStartsAfresh) {
  FakeOrigin origin(4 * kMiB);
  ReadonlyCache cache(Dir(), "deleted.bin", origin.size(), &config_);
  Served(cache, 0, 100, &origin);
  AdvanceClockForTesting(std::chrono::seconds(11));
  ASSERT_TRUE(cache.CheckHandles());
  ASSERT_EQ(std::remove(cache.GetCachePath().c_str()), 0);

  EXPECT_EQ(Served(cache, 0, 5000, &origin), 5000);
  Served(cache, kSectorSize, 100, &origin);
  EXPECT_EQ(log_.Count("[CACHE     ] Cache file is deleted. Clear cache information. : " + cache.GetCachePath()),
            1);
  EXPECT_EQ(origin.Requests(), (std::vector<Range>{{0, kMiB}, {0, kMiB}, {kMiB, kSectorSize}}));
  EXPECT_EQ(cache.GetFileSize(), 3 * kSectorSize);
}

TEST_F(ReadPathTest, CloseKeepsOrDeletesTheFile) {
  FakeOrigin origin(4 * kMiB);
  ReadonlyCache cache(Dir(), "close.bin", origin.size(), &config_);
  Served(cache, 0, 100, &origin);
  EXPECT_EQ(cache.Close(false), kOk);
  EXPECT_TRUE(Exists(cache.GetCachePath()));
  EXPECT_EQ(Served(cache, 0, 100), 100);  // the index stayed too
  EXPECT_EQ(cache.Close(true), kOk);
  EXPECT_FALSE(Exists(cache.GetCachePath()));
  EXPECT_EQ(Served(cache, 0, 100), 0);

  // A handle already closed for idleness is not open: nothing to delete.
  ReadonlyCache idle(Dir(), "idle.bin", origin.size(), &config_);
  Served(idle, 0, 100, &origin);
  AdvanceClockForTesting(std::chrono::seconds(11));
  ASSERT_TRUE(idle.CheckHandles());
  EXPECT_EQ(idle.Close(true), kErrNotOpen);
  EXPECT_TRUE(Exists(idle.GetCachePath()));
}

TEST_F(ReadPathTest, DegenerateRequestsAndRefusedOperations) {
  FakeOrigin origin(4 * kMiB);
  ReadonlyCache cache(Dir(), "odd.bin", origin.size(), &config_);
  EXPECT_EQ(cache.Read(nullptr), kErrInvalidArgument);
  EXPECT_EQ(Served(cache, 100, 0, &origin), 0);
  std::vector<char> bytes(10, 'x');
  _WRITEDATA wd{bytes.data(), 0, bytes.size(), 0, std::make_shared<_FS_HANDLE>(), origin.size(), &origin};
  EXPECT_EQ(cache.Write(&wd), kErrReadOnly);
  EXPECT_EQ(wd.transferred, 0u);
  EXPECT_EQ(cache.Truncate(0), kErrReadOnly);
  EXPECT_TRUE(cache.IsReadonly());

  // A cache file that cannot be opened (a directory took its name).
  ReadonlyCache blocked(Dir(), "blocked.bin", origin.size(), &config_);
  const size_t requests = origin.Requests().size();
  ASSERT_EQ(mkdir(blocked.GetCachePath().c_str(), 0700), 0);
  EXPECT_EQ(ReadChecked(blocked, 0, 100, &origin), kErrRead);
  EXPECT_EQ(log_.LevelOf("[CACHE     ] Cache open has failed : " + blocked.GetCachePath()), LOGLEVEL_ERROR);
  EXPECT_EQ(blocked.FetchWrite(0, bytes.data(), 10, nullptr), static_cast<int>(kErrRead));
  EXPECT_EQ(origin.Requests().size(), requests);
}

}  // namespace
