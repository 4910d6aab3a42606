// The sector cache at its edges: origins that deliver in pieces or stop
// short, ranges a client should never send, and the cache file after an
// idle close.
#include <gtest/gtest.h>

#include <climits>
#include <sys/stat.h>

#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "cache/writable_cache.h"
#include "common/clock.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/requests.h"
#include "support/temp_dir.h"
#include "support/waits.h"

namespace {

constexpr long long S = kSectorSize;

// Delivers the origin's bytes in pieces of `piece` bytes, and only up to
// `stop` (the rest of a request is silently left out).
class PieceOrigin : public IFetch {
 public:
  PieceOrigin(long long size, long long piece, long long stop) : size_(size), piece_(piece), stop_(stop) {}
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback* callback) override {
    ++requests_;
    const long long end = std::min({offset + static_cast<long long>(length), size_, stop_});
    std::vector<char> buffer(static_cast<size_t>(piece_));
    for (long long at = offset; at < end; at += piece_) {
      const long long n = std::min(piece_, end - at);
      FakeOrigin::Fill(buffer.data(), at, n);
      long written = 0;
      if (callback->FetchWrite(at, buffer.data(), static_cast<long>(n), &written) != 0) return 1;
    }
    return 0;
  }
  std::string HandleInfo(_FS_HANDLE*) override { return ""; }
  int requests() const { return requests_; }

 private:
  const long long size_, piece_, stop_;
  int requests_ = 0;
};

class SectorCacheBoundsTest : public ::testing::Test {
 protected:
  std::unique_ptr<ReadonlyCache> Make(long long size) {
    return std::make_unique<ReadonlyCache>(dir_.path() + "/", "bounds", size, &config_);
  }
  // One read through `origin`; the bytes served are checked against the
  // origin's.
  ReadOutcome Read(ReadonlyCache& cache, IFetch* origin, long long size, long long offset, size_t length) {
    std::vector<char> buffer(length + 1, '\x5a');
    _READDATA rd = ReadRequest(buffer, offset, origin, size, 2000);
    rd.size = length;
    ReadOutcome r;
    r.status = cache.Read(&rd);
    r.transferred = rd.transferred;
    if (r.status == kOk) r.mismatch = FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred));
    return r;
  }

  TempDir dir_;
  FakeConfig config_;
};

// Every piece lands at its own offset in its sector, and a sector is served
// only once it holds all it should: a whole sector, or up to the end.
TEST_F(SectorCacheBoundsTest, PiecesOfSectorsLandAtTheirOffsetsAndShortSectorsFail) {
  const long long size = 300000 + 2 * S;
  const struct {
    long long piece, stop, offset, length;
    unsigned int status;
    unsigned long long served;
  } rows[] = {
      {128 * 1024, LLONG_MAX, 0, 4096, kOk, 4096},
      {128 * 1024, LLONG_MAX, S + 1000, 200000, kOk, 200000},
      {128 * 1024, LLONG_MAX, 2 * S + 299000, 4096, kOk, 1000},  // the true end, not a false one at a piece
      {100000, LLONG_MAX, 0, static_cast<long long>(size), kOk, static_cast<unsigned long long>(size)},
      {128 * 1024, S + 1000, S, 4096, kErrRead, 0},  // a sector left short inside the file
      {128 * 1024, 2 * S + 1000, 2 * S + 2000, 100, kErrRead, 0},  // the last one left short
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.offset);
    PieceOrigin origin(size, row.piece, row.stop);
    auto cache = Make(size);
    const ReadOutcome r = Read(*cache, &origin, size, row.offset, static_cast<size_t>(row.length));
    EXPECT_EQ(r.status, row.status);
    if (r.status != kOk) continue;
    EXPECT_EQ(r.transferred, row.served);
    EXPECT_EQ(r.mismatch, -1);
  }
}

TEST_F(SectorCacheBoundsTest, RangesOutsideTheFileAreRefusedWithoutAskingTheOrigin) {
  FakeOrigin origin(2 * S);
  auto cache = Make(origin.size());
  for (long long offset : {-1LL, -S, LLONG_MIN}) {
    EXPECT_EQ(Read(*cache, &origin, origin.size(), offset, 4096).status, kErrFileRead) << offset;
  }
  std::vector<char> buffer(16);
  _READDATA rd = ReadRequest(buffer, LLONG_MAX - 4, &origin, origin.size());
  EXPECT_EQ(cache->Read(&rd), kErrFileRead) << "offset + size past the largest offset";
  EXPECT_TRUE(origin.Requests().empty());

  // Reservations stop at the end of the file, so a huge one is cheap, and a
  // huge clear walks only what is there.
  Watchdog watchdog("huge reserve or clear", std::chrono::seconds(60));
  EXPECT_EQ(cache->Reserve(0, 1LL << 50), kOk);
  EXPECT_EQ(cache->Reserve(2 * S, S), kNothingReserved);
  EXPECT_EQ(cache->Reserve(-S, S), kNothingReserved);
  EXPECT_EQ(cache->ClearReserved(0, LLONG_MAX), kOk);
  EXPECT_EQ(cache->ClearReserved(-S, LLONG_MAX), kOk);
  EXPECT_TRUE(Served(*cache, origin, 0, static_cast<size_t>(2 * S)));
  long written = 0;
  EXPECT_EQ(cache->FetchWrite(-S, buffer.data(), 16, &written), static_cast<int>(kErrFileWrite));
}

// A file a client closes after the quota thread closed its idle stream, and
// a writable file taken over as a sector cache, are deleted like any other.
TEST_F(SectorCacheBoundsTest, CloseDeletesTheFileAfterAnIdleCloseAndAfterATakeOver) {
  FakeOrigin origin(2 * S);
  auto cache = Make(origin.size());
  ASSERT_TRUE(Served(*cache, origin, 0, 4096));
  const std::string path = cache->GetCachePath();
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  AdvanceClockForTesting(TimedHandle::kIdleTimeout + std::chrono::seconds(1));
  const bool closed = cache->CheckHandles();
  ResetClockForTesting();
  ASSERT_TRUE(closed);
  EXPECT_EQ(cache->Close(true), kErrNotOpen);
  EXPECT_NE(stat(path.c_str(), &st), 0) << "left behind: " << path;

  const std::string local = dir_.path() + "/taken.bin";
  auto writable = std::make_unique<WritableCache>(dir_.path() + "/", "taken.bin", origin.size(), &origin, &config_);
  ASSERT_TRUE(Served(*writable, origin, 0, static_cast<size_t>(origin.size())));
  std::unique_ptr<ICacheFile> taken(writable->RebuildToReadonlyCache(&origin, &config_));
  writable.reset();
  ASSERT_EQ(stat(local.c_str(), &st), 0);
  EXPECT_TRUE(Served(*taken, origin, S, 4096));
  EXPECT_EQ(taken->Close(true), kOk);
  EXPECT_NE(stat(local.c_str(), &st), 0) << "left behind: " << local;
}

}  // namespace
