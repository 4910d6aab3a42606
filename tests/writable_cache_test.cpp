// The whole-file writable cache against a deterministic origin.
#include "cache/writable_cache.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <tuple>

#include "cache/sector.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/temp_dir.h"
#include "support/test_point_gate.h"
#include "support/waits.h"

namespace {

constexpr long long S = kSectorSize;
using Requests = std::vector<std::pair<long long, long>>;

std::pair<long long, long> Span(long long offset, long long length) { return {offset, static_cast<long>(length)}; }

// The local file's bytes as the cache serves them without fetching.
std::vector<char> LocalBytes(ICacheFile& cache, long long offset, long long size) {
  std::vector<char> buffer(static_cast<size_t>(size));
  _READDATA rd = ReadRequest(buffer, offset, nullptr);
  EXPECT_EQ(cache.Read(&rd), kOk);
  buffer.resize(rd.transferred);
  return buffer;
}

unsigned int Store(WritableCache& cache, const std::vector<char>& data, long long offset, long long file_size,
                   IFetch* fetch = nullptr) {
  _WRITEDATA wd = WriteRequest(data, offset, file_size, fetch);
  const unsigned int status = cache.Write(&wd);
  EXPECT_TRUE(status != kOk || wd.transferred == data.size());
  return status;
}

class WritableCacheTest : public ::testing::Test {
 protected:
  std::string Dir() const { return dir_.path() + "/"; }
  std::unique_ptr<WritableCache> Make(const std::string& name, long long size) {
    return std::make_unique<WritableCache>(Dir(), name, size, nullptr, &config_);
  }
  TempDir dir_;
  FakeConfig config_;
};

TEST_F(WritableCacheTest, TakenNamesAreNumberedBeforeTheLastDot) {
  auto a = Make("a.txt", 0), a0 = Make("a.txt", 0), a1 = Make("a.txt", 0), n = Make("noext", 0);
  EXPECT_EQ(a->GetCachePath(), Dir() + "a.txt");
  EXPECT_EQ(a0->GetCachePath(), Dir() + "a[0].txt");
  EXPECT_EQ(a1->GetCachePath(), Dir() + "a[1].txt");
  EXPECT_EQ(Make("noext", 0)->GetCachePath(), Dir() + "[0].noext");  // no dot: the whole name is the extension
  ASSERT_EQ(mkdir((Dir() + "x.y.bin").c_str(), 0700), 0);  // a directory takes a name as a file does
  EXPECT_EQ(Make("x.y.bin", 0)->GetCachePath(), Dir() + "x.y[0].bin");
  EXPECT_EQ(Make("drive:b.txt:rest", 0)->GetCachePath(), Dir() + "b.txt");  // named by its middle part
  a.reset();  // destruction deletes the file
  EXPECT_FALSE(Exists(Dir() + "a.txt"));
  dir_.Write("plain", "x");
  EXPECT_EQ(ErrorThrownBy([&] { WritableCache cache(dir_.File("plain") + "/", "f.bin", S, nullptr, &config_); }),
            kErrCreateFile);
}

// Steps on one file, each with the origin ranges it must fetch: a read
// fetches every hole it touches (adjacent ones as one run, none twice,
// nothing at or past the logical size); a write fetches only the holes of
// its head sector and of the sector of its end offset that it covers in
// part; a cut keeps the hole of the sector holding the new end, growing adds
// zeros. 'W' writes without a fetcher and 'A' is a write of the whole file
// (the request's file size is its end): both fetch nothing, and the sectors
// they touch read as zeros around the bytes written. A write that starts at
// or past the logical size inside a hole fetches it like any other. Then FillEmptySectors fetches the rest and the file
// holds the model's bytes.
TEST_F(WritableCacheTest, ReadsWritesAndCutsFetchTheHolesTheyNeed) {
  struct Step {
    char op;  // r read, w write, W without fetcher, A of the whole file, t truncate to `offset`
    long long offset, length;
    Requests requests;
  };
  const struct {
    long long size;
    std::vector<Step> steps;
    Requests by_fill;
  } rows[] = {
      {6 * S + 100,
       {{'W', 2 * S, S, {}}, {'r', S + 100, 2 * S - 95, {Span(S, S), Span(3 * S, S)}},
        {'r', S + 100, 2 * S - 95, {}}, {'r', 4 * S, 2 * S + 100, {Span(4 * S, 3 * S)}},
        {'r', 6 * S + 100, 100, {}}, {'r', 10, 100, {Span(0, S)}}},
       {}},
      {4 * S, {{'w', 10, 100, {Span(0, S)}}, {'r', 0, S, {}}}, {Span(S, 3 * S)}},
      {4 * S, {{'w', S - 10, 20, {Span(0, 2 * S)}}}, {Span(2 * S, 2 * S)}},
      {4 * S, {{'w', S / 2, 2 * S, {Span(0, S), Span(2 * S, S)}}}, {Span(3 * S, S)}},
      {2 * S, {{'w', 0, S, {Span(S, S)}}}, {}}, {4 * S, {{'w', S, 2 * S, {Span(3 * S, S)}}}, {Span(0, S)}},
      {4 * S, {{'A', 0, 4 * S, {}}}, {}}, {4 * S, {{'A', 0, 100, {}}}, {Span(S, 3 * S)}},
      {2 * S, {{'w', 3 * S, 10, {}}}, {Span(0, 2 * S)}},
      {2 * S + 100, {{'w', 2 * S + 100, 10, {Span(2 * S, S)}}}, {Span(0, 2 * S)}},
      {4 * S, {{'t', S + 100, 0, {}}, {'w', S + 100, 10, {Span(S, S)}}}, {Span(0, S)}},
      {4 * S, {{'W', S + 5, 10, {}}}, {Span(0, S), Span(2 * S, 2 * S)}},
      {4 * S, {{'t', S + 100, 0, {}}, {'r', S + 100, 100, {}}}, {Span(0, 2 * S)}},
      {4 * S, {{'t', 2 * S, 0, {}}, {'r', 2 * S, 10, {}}}, {Span(0, 3 * S)}},
      {4 * S, {{'t', 5 * S, 0, {}}}, {Span(0, 4 * S)}},
  };
  for (const auto& row : rows) {
    FakeOrigin origin(row.size);
    auto cache = Make("f.bin", row.size);
    std::vector<char> model = OriginBytes(0, row.size);
    for (const Step& step : row.steps) {
      SCOPED_TRACE(testing::Message() << step.op << " " << step.offset << "+" << step.length << " in " << row.size);
      const long long end = step.offset + step.length;
      if (step.op == 'r') {
        const ReadOutcome r = ReadAndCheck(*cache, origin, step.offset, static_cast<size_t>(step.length), 0,
                                           nullptr, false, &model);
        EXPECT_TRUE(r.status == kOk && r.Clean()) << r.status << ", wrong byte " << r.mismatch;
        const long long served = std::max(0LL, std::min<long long>(end, model.size()) - step.offset);
        EXPECT_EQ(r.transferred, static_cast<unsigned long long>(served));
      } else if (step.op == 't') {
        ASSERT_EQ(cache->Truncate(step.offset), kOk);
        EXPECT_EQ(cache->GetFileSize(), step.offset);
        model.resize(static_cast<size_t>(step.offset), '\0');
      } else {
        const std::vector<char> mine = Pattern(static_cast<size_t>(step.length), 'w');
        model.resize(std::max<size_t>(model.size(), static_cast<size_t>(end)), '\0');
        if (step.op != 'w') {
          std::fill(model.begin() + SectorOf(step.offset),
                    model.begin() + std::min<long long>(SectorOf(end - 1) + S, model.size()), '\0');
        }
        std::copy(mine.begin(), mine.end(), model.begin() + step.offset);
        IFetch* fetch = step.op == 'W' ? nullptr : &origin;
        ASSERT_EQ(Store(*cache, mine, step.offset, step.op == 'A' ? end : row.size, fetch), kOk);
      }
      EXPECT_EQ(origin.Requests(), step.requests);
      origin.ClearRequests();
    }
    EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
    EXPECT_EQ(origin.Requests(), row.by_fill) << "filling a file of " << row.size;
    EXPECT_EQ(FileContents(cache->GetCachePath()).substr(0, model.size()), std::string(model.begin(), model.end()));
  }
}

// The origin fails, delivers short or past the range while a read fetches
// the holes around a written sector: a hole stays a hole unless all of it was
// stored, a read over one fails instead of serving zeros, and the client's
// bytes are never overwritten.
TEST_F(WritableCacheTest, FaultyFetchesLeaveHolesAndNeverOverwriteTheClientsBytes) {
  const struct {
    FakeOrigin::Mode mode;
    unsigned int read_status, write_status;  // of the read, and of a later write into the last sector
    Requests refetched;
  } rows[] = {
      {FakeOrigin::Mode::kFail, kErrRead, kErrRead, {Span(0, S), Span(2 * S, 2 * S)}},
      {FakeOrigin::Mode::kShort, kErrRead, kOk, {}},  // the write's own fetch of one sector works
      {FakeOrigin::Mode::kExtra, kOk, kOk, {}},
  };
  for (const auto& row : rows) {
    FakeOrigin origin(4 * S);
    auto cache = Make("x.bin", origin.size());
    const std::vector<char> mine = Pattern(static_cast<size_t>(S), 'm');
    ASSERT_EQ(Store(*cache, mine, S, origin.size()), kOk);
    std::vector<char> expected = OriginBytes(0, origin.size());
    std::copy(mine.begin(), mine.end(), expected.begin() + S);
    origin.set_mode(row.mode);
    EXPECT_EQ(ReadAndCheck(*cache, origin, 0, static_cast<size_t>(4 * S), 0, nullptr, false, &expected).status,
              row.read_status);
    const std::vector<char> late = Pattern(10, 'z');
    EXPECT_EQ(Store(*cache, late, 3 * S + 10, origin.size(), &origin), row.write_status) << "a write into a hole";
    if (row.write_status == kOk) std::copy(late.begin(), late.end(), expected.begin() + 3 * S + 10);
    origin.set_mode(FakeOrigin::Mode::kNormal);
    origin.ClearRequests();
    EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
    EXPECT_EQ(origin.Requests(), row.refetched) << "origin mode " << static_cast<int>(row.mode);
    EXPECT_EQ(LocalBytes(*cache, 0, 4 * S), expected) << "origin mode " << static_cast<int>(row.mode);
  }
}

// A read that comes while a write has stored its bytes but not yet marked
// its sectors filled waits for it: it must not fetch the origin's bytes of
// those sectors over the client's.
TEST_F(WritableCacheTest, AReadDuringAWriteNeverFetchesOverIt) {
  FakeOrigin origin(2 * S);
  auto cache = Make("race.bin", origin.size());
  const std::vector<char> mine = Pattern(static_cast<size_t>(S), 'r');
  std::vector<char> expected = OriginBytes(0, origin.size());
  std::copy(mine.begin(), mine.end(), expected.begin());
  TestPointGate written("writable cache: written, holes not yet erased");
  Background writer([&] { EXPECT_EQ(Store(*cache, mine, 0, origin.size(), &origin), kOk); });
  ASSERT_TRUE(written.WaitUntilHeld());
  Background reader([&] { EXPECT_TRUE(Served(*cache, origin, 0, static_cast<size_t>(S), 0, &expected)); });
  // Time for a reader that is not kept out to fetch the hole; one that is
  // kept out is still waiting.
  reader.WaitDone(std::chrono::milliseconds(100));
  written.Release();
  ASSERT_TRUE(writer.WaitDone() && reader.WaitDone());
  EXPECT_EQ(LocalBytes(*cache, 0, S), mine);
  EXPECT_EQ(origin.Requests(), Requests{Span(S, S)}) << "only the write's own tail sector";
}

// FillEmptySectors names a handle of its own once and sends every run under
// it. Ranges outside the file fail without touching it; closing with removal
// deletes the file once, after which reads and writes fail.
TEST_F(WritableCacheTest, FillHandleBadRangesAndClosedFiles) {
  FakeOrigin origin(3 * S);
  auto cache = Make("c.bin", origin.size());
  ASSERT_EQ(Store(*cache, Pattern(static_cast<size_t>(S), 'f'), S, origin.size()), kOk);
  EXPECT_EQ(cache->FillEmptySectors(nullptr), kErrInvalidArgument);
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(origin.HandleInfoCalls(), 1);
  ASSERT_EQ(origin.Handles().size(), 2u);
  for (const _FS_HANDLE& h : origin.Handles()) {
    EXPECT_EQ(std::make_tuple(h.type, h.state, h.id, h.info),
              std::make_tuple(2, 1, int64_t{0}, std::string("origin-handle-info")));
  }
  origin.ClearRequests();

  std::vector<char> buffer(10, 'c');
  _READDATA rd = ReadRequest(buffer, -1, &origin);
  EXPECT_EQ(cache->Read(&rd), kErrFileRead);
  rd = ReadRequest(buffer, 10, &origin);
  rd.size = ULLONG_MAX;
  EXPECT_EQ(cache->Read(&rd), kErrFileRead);
  for (long long offset : {-5LL, LLONG_MAX - 5}) EXPECT_EQ(Store(*cache, buffer, offset, S, &origin), kErrFileWrite);
  EXPECT_EQ(cache->FetchWrite(0, buffer.data(), -1, nullptr), static_cast<int>(kErrFileWrite));
  EXPECT_EQ(cache->Truncate(-1), kErrFileWrite);
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->GetFileSize(), 3 * S);

  EXPECT_EQ(cache->Close(false), kOk);
  EXPECT_EQ(LocalBytes(*cache, S, 10), Pattern(10, 'f'));
  EXPECT_EQ(cache->Close(true), kOk);
  EXPECT_FALSE(Exists(cache->GetCachePath()));
  EXPECT_EQ(cache->Close(true), kErrNotOpen);
  rd = ReadRequest(buffer, 0, nullptr);
  EXPECT_EQ(cache->Read(&rd), kErrRead);
  EXPECT_EQ(Store(*cache, buffer, 0, 10), kErrFileWrite);
}

TEST_F(WritableCacheTest, ConversionHandsTheLocalFileToAReadonlyCache) {
  for (long long size : {2 * S + 1, 0LL}) {
    SCOPED_TRACE(size);
    auto cache = Make("big.bin", size);
    const std::string path = cache->GetCachePath();
    const std::vector<char> data = OriginBytes(0, size);
    ASSERT_EQ(Store(*cache, data, 0, size), kOk);
    std::unique_ptr<ICacheFile> converted(cache->RebuildToReadonlyCache(nullptr, &config_));
    ASSERT_NE(converted, nullptr);
    EXPECT_EQ(cache->Close(true), kErrNotOpen);
    cache.reset();
    EXPECT_TRUE(Exists(path));
    EXPECT_EQ(converted->GetFileSize(), size);
    EXPECT_EQ(LocalBytes(*converted, 0, size + 1), data);
  }
}

}  // namespace
