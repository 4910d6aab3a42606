// An origin that fails, delivers short, nothing, or past the range asked,
// or hangs, seen through a manager with a worker queue: every read ends with
// a status the library defines, in bounded time, and never serves a byte that
// is not the origin's. (Deliveries past the range into a writable file are
// checked in writable_cache_test.cpp.)
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "cache/sector.h"
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

class OriginFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Cache_UnbindAsyncQ();
    ASSERT_EQ(InitCache(path_.c_str(), 64 * kMiB, &cache_), kOk);
  }
  void TearDown() override {
    ReleaseCache(path_.c_str());
    ResetClockForTesting();
  }
  void Configure(const char* json) { ASSERT_EQ(cache_->SetConfiguration(json), kOk); }

  SettingsFile none_{""};
  TempDir dir_;
  const std::string path_ = dir_.path() + "/cache";
  ICache_V2* cache_ = nullptr;
};

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
  Watchdog watchdog("sequential reads under origin faults", 120s);

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
  Watchdog watchdog("reads against a hanging origin", 60s);

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
  Watchdog watchdog("reads whose handle closes", 60s);
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

}  // namespace
