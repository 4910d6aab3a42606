// The whole-file writable cache against a deterministic origin.
#include "cache/writable_cache.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <climits>
#include <csignal>
#include <memory>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "cache/sector.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/temp_dir.h"

namespace {

constexpr long long S = kSectorSize;
using Requests = std::vector<std::pair<long long, long>>;
using Mode = FakeOrigin::Mode;

std::pair<long long, long> Span(long long offset, long long length) { return {offset, static_cast<long>(length)}; }

// The local file's bytes as the cache serves them without fetching.
std::vector<char> LocalBytes(ICacheFile& cache, long long offset, long long size) {
  std::vector<char> buffer(static_cast<size_t>(size));
  _READDATA rd = ReadRequest(buffer, offset, nullptr);
  EXPECT_EQ(cache.Read(&rd), kOk);
  buffer.resize(rd.transferred);
  return buffer;
}

// One write of `data`; a successful one must report all of it written.
unsigned int Store(WritableCache& cache, const std::vector<char>& data, long long offset, long long file_size,
                   IFetch* fetch = nullptr) {
  _WRITEDATA wd = WriteRequest(data, offset, file_size, fetch);
  const unsigned int status = cache.Write(&wd);
  if (status == kOk) {
    EXPECT_EQ(wd.transferred, data.size());
  }
  return status;
}

// While it lives, files this process writes may grow to `bytes` only: a write
// past that stores short (EFBIG), as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : old_signal_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit limit{bytes, old_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, old_signal_);
  }

 private:
  rlimit old_{};
  void (*old_signal_)(int);
};

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
  auto b = Make("drive:b.txt:rest", 0);  // named by its middle part
  EXPECT_EQ(b->GetCachePath(), Dir() + "b.txt");
  EXPECT_EQ(b->GetFileName(), "b.txt");
  dir_.Write("plain", "x");
  EXPECT_EQ(ErrorThrownBy([&] { WritableCache cache(dir_.File("plain") + "/", "f.bin", S, nullptr, &config_); }),
            kErrCreateFile);
}

// A read fetches every hole it touches, adjacent ones as one run, never one
// it already fetched, nothing at or past the logical size; it serves the
// origin's bytes around the client's.
TEST_F(WritableCacheTest, ReadsFetchTheHolesTheyTouchInAdjacentRuns) {
  const long long size = 6 * S + 100;
  const struct {
    const char* what;
    long long written;  // a whole sector written without a fetcher, or -1
    long long offset, length, served;
    Requests requests;
  } rows[] = {
      {"inside the first sector", -1, 10, 100, 100, {Span(0, S)}},
      {"holes on both sides of a written sector", 2 * S, S + 100, 2 * S - 95, 2 * S - 95, {Span(S, S), Span(3 * S, S)}},
      {"holes covered whole, up to the end", 2 * S, 4 * S, 2 * S + 100, 2 * S + 100, {Span(4 * S, 3 * S)}},
      {"past the end", -1, size, 100, 0, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    FakeOrigin origin(size);
    auto cache = Make("r.bin", size);
    std::vector<char> expected = OriginBytes(0, size);
    if (row.written >= 0) {
      const std::vector<char> mine = Pattern(static_cast<size_t>(S), 'w');
      ASSERT_EQ(Store(*cache, mine, row.written, size), kOk);
      std::copy(mine.begin(), mine.end(), expected.begin() + row.written);
    }
    for (int again = 0; again < 2; ++again) {
      ReadOutcome r = ReadAndCheck(*cache, origin, row.offset, static_cast<size_t>(row.length), 0, nullptr, false,
                                   &expected);
      EXPECT_EQ(r.status, kOk);
      EXPECT_EQ(r.transferred, static_cast<unsigned long long>(row.served));
      EXPECT_TRUE(r.Clean()) << "wrong byte " << r.mismatch;
      EXPECT_EQ(origin.Requests(), again == 0 ? row.requests : Requests{});
      origin.ClearRequests();
    }
  }
}

// A write fetches the holes it covers in part (head and end sector) first;
// FillEmptySectors then fetches what is left.
TEST_F(WritableCacheTest, WritesFetchPartlyCoveredHeadAndTailFirst) {
  const struct {
    long long size, offset, length, file_size;
    Requests by_write, by_fill;
  } rows[] = {
      {4 * S, 10, 100, 4 * S, {Span(0, S)}, {Span(S, 3 * S)}},
      {4 * S, S - 10, 20, 4 * S, {Span(0, 2 * S)}, {Span(2 * S, 2 * S)}},
      {4 * S, S / 2, 2 * S, 4 * S, {Span(0, S), Span(2 * S, S)}, {Span(3 * S, S)}},
      // Writes ending on a boundary fetch the sector that starts there as tail.
      {2 * S, 0, S, 2 * S, {Span(S, S)}, {}},
      {4 * S, S, 2 * S, 4 * S, {Span(3 * S, S)}, {Span(0, S)}},
      // Whole-file writes: offset 0 and the request's file size as end.
      {4 * S, 0, 4 * S, 4 * S, {}, {}},
      {4 * S, 0, 100, 100, {}, {Span(S, 3 * S)}},
      // Past the logical size: nothing fetched, the holes before it stay.
      {2 * S, 3 * S, 10, 2 * S, {}, {Span(0, 2 * S)}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "write of " << row.length << " at " << row.offset << " in " << row.size);
    FakeOrigin origin(row.size);
    auto cache = Make("w.bin", row.size);
    const std::vector<char> mine = Pattern(static_cast<size_t>(row.length), 'w');
    ASSERT_EQ(Store(*cache, mine, row.offset, row.file_size, &origin), kOk);
    EXPECT_EQ(origin.Requests(), row.by_write);
    // The fetched bytes arrived before the write landed on them.
    std::vector<char> expected = OriginBytes(0, std::max(row.size, row.offset + row.length));
    std::copy(mine.begin(), mine.end(), expected.begin() + row.offset);
    for (const auto& fetched : row.by_write) {
      const long long end = std::min(fetched.first + fetched.second, row.size);
      EXPECT_EQ(LocalBytes(*cache, fetched.first, end - fetched.first),
                std::vector<char>(expected.begin() + fetched.first, expected.begin() + end));
    }
    origin.ClearRequests();
    EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
    EXPECT_EQ(origin.Requests(), row.by_fill);
    // Small writes are on disk at once, not in a stream buffer.
    EXPECT_EQ(FileContents(cache->GetCachePath()).substr(static_cast<size_t>(row.offset), mine.size()),
              std::string(mine.begin(), mine.end()));
  }
}

// The origin fails, delivers nothing, short or past the range while a read
// fetches the holes around a written sector: a hole stays a hole unless all
// of it was stored, the read serves the local file as it is, and the
// client's bytes are never overwritten.
TEST_F(WritableCacheTest, FaultyFetchesLeaveHolesAndNeverOverwriteTheClientsBytes) {
  const struct {
    Mode mode;
    long long served;  // the local file's length after the read
    bool first_lost;   // sector 0 stays a hole, read as zeros
    Requests refetched;
  } rows[] = {
      {Mode::kNormal, 4 * S, false, {}},
      {Mode::kFail, 2 * S, true, {Span(0, S), Span(2 * S, 2 * S)}},
      {Mode::kNothing, 2 * S, true, {Span(0, S), Span(2 * S, 2 * S)}},
      {Mode::kShort, 3 * S, false, {Span(3 * S, S)}},
      {Mode::kExtra, 4 * S, false, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.mode));
    FakeOrigin origin(4 * S);
    auto cache = Make("x.bin", origin.size());
    const std::vector<char> mine = Pattern(static_cast<size_t>(S), 'm');
    ASSERT_EQ(Store(*cache, mine, S, origin.size()), kOk);
    std::vector<char> expected = OriginBytes(0, origin.size());
    std::copy(mine.begin(), mine.end(), expected.begin() + S);
    std::vector<char> served = expected;
    if (row.first_lost) std::fill(served.begin(), served.begin() + S, '\0');

    origin.set_mode(row.mode);
    ReadOutcome r = ReadAndCheck(*cache, origin, 0, static_cast<size_t>(4 * S), 0, nullptr, false, &served);
    EXPECT_EQ(r.status, kOk);
    EXPECT_EQ(r.transferred, static_cast<unsigned long long>(row.served));
    EXPECT_TRUE(r.Clean()) << "wrong byte " << r.mismatch;
    EXPECT_EQ(origin.Requests(), (Requests{Span(0, S), Span(2 * S, 2 * S)}));
    origin.set_mode(Mode::kNormal);
    origin.ClearRequests();
    EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
    EXPECT_EQ(origin.Requests(), row.refetched);
    EXPECT_EQ(LocalBytes(*cache, 0, 4 * S), expected);
  }
}

// Stores the disk takes only in part fail with kErrFileWrite, also those a
// stream would merely buffer; a hole stored in part stays a hole.
TEST_F(WritableCacheTest, ShortStoresFailAndLeaveTheHole) {
  FakeOrigin origin(4 * S);
  auto cache = Make("short.bin", origin.size());
  {
    FileSizeLimit limit(static_cast<rlim_t>(S + S / 2));
    EXPECT_EQ(Store(*cache, Pattern(10, 's'), 2 * S, origin.size()), kErrFileWrite) << "a small write past the limit";
    EXPECT_EQ(Store(*cache, Pattern(100, 'l'), S + S / 2 - 50, origin.size()), kErrFileWrite) << "across the limit";
    std::vector<char> piece = OriginBytes(S, S);  // sector 1 fits in half: the fetch stores short
    EXPECT_EQ(cache->FetchWrite(S, piece.data(), static_cast<long>(S), nullptr), static_cast<int>(kErrFileWrite));
  }
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(origin.Requests(), Requests{Span(0, 4 * S)});
  EXPECT_EQ(LocalBytes(*cache, 0, 4 * S), OriginBytes(0, 4 * S));
}

TEST_F(WritableCacheTest, TruncateKeepsTheEndSectorsHoleAndGrowsWithZeros) {
  FakeOrigin origin(4 * S);
  auto cache = Make("t.bin", origin.size());
  // A cut on a boundary: the sector starting at the new end keeps its hole,
  // but reads from the end on fetch nothing.
  ASSERT_EQ(cache->Truncate(S), kOk);
  EXPECT_EQ(ReadAndCheck(*cache, origin, S, 100, 0).transferred, 0u);
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(origin.Requests(), Requests{Span(0, 2 * S)});
  origin.ClearRequests();
  ASSERT_EQ(cache->Truncate(5 * S), kOk);  // growing adds zeros, not holes
  EXPECT_EQ(cache->GetFileSize(), 5 * S);
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(LocalBytes(*cache, 4 * S, 100), std::vector<char>(100, '\0'));
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->Truncate(-1), kErrFileWrite);
}

TEST_F(WritableCacheTest, FillEmptySectorsFetchesEveryHoleUnderItsOwnHandle) {
  FakeOrigin origin(3 * S + 12345);
  auto cache = Make("f.bin", origin.size());
  ASSERT_EQ(Store(*cache, std::vector<char>(10, 'f'), S + 5, origin.size()), kOk);  // no fetcher: sector 1 is zeros

  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(origin.Requests(), (Requests{Span(0, S), Span(2 * S, 2 * S)}));
  // The fetcher names the handle first, then every run goes out under it.
  EXPECT_EQ(origin.HandleInfoCalls(), 1);
  ASSERT_EQ(origin.Handles().size(), 2u);
  for (const _FS_HANDLE& h : origin.Handles()) {
    EXPECT_EQ(std::make_tuple(h.type, h.state, h.id, h.info),
              std::make_tuple(2, 1, int64_t{0}, std::string("origin-handle-info")));
  }
  std::vector<char> expected = OriginBytes(0, origin.size());
  std::fill(expected.begin() + S, expected.begin() + 2 * S, '\0');
  std::fill(expected.begin() + S + 5, expected.begin() + S + 15, 'f');
  EXPECT_EQ(LocalBytes(*cache, 0, origin.size()), expected);
  origin.ClearRequests();
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->FillEmptySectors(nullptr), kErrInvalidArgument);
}

// Ranges outside the file fail without touching it; closing with removal
// deletes the file once, after which reads and writes fail; destruction
// deletes it too.
TEST_F(WritableCacheTest, BadRangesAndClosedFilesFailAndRemovalDeletesOnce) {
  FakeOrigin origin(S);
  auto cache = Make("c.bin", origin.size());
  const std::string path = cache->GetCachePath();
  std::vector<char> buffer(10, 'c');
  _READDATA rd = ReadRequest(buffer, -1, &origin);
  EXPECT_EQ(cache->Read(&rd), kErrFileRead);
  rd = ReadRequest(buffer, 10, &origin);
  rd.size = ULLONG_MAX;
  EXPECT_EQ(cache->Read(&rd), kErrFileRead);
  for (long long offset : {-5LL, LLONG_MAX - 5}) EXPECT_EQ(Store(*cache, buffer, offset, S, &origin), kErrFileWrite);
  EXPECT_EQ(cache->FetchWrite(0, buffer.data(), -1, nullptr), static_cast<int>(kErrFileWrite));
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->GetFileSize(), 0);

  ASSERT_EQ(Store(*cache, buffer, 0, 10), kOk);
  EXPECT_EQ(cache->Close(false), kOk);
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(LocalBytes(*cache, 0, 10), buffer);
  EXPECT_EQ(cache->Close(true), kOk);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(cache->Close(true), kErrNotOpen);
  rd = ReadRequest(buffer, 0, nullptr);
  EXPECT_EQ(cache->Read(&rd), kErrRead);
  EXPECT_EQ(Store(*cache, buffer, 0, 10), kErrFileWrite);

  auto dropped = Make("d.bin", S);
  const std::string dropped_path = dropped->GetCachePath();
  EXPECT_TRUE(Exists(dropped_path));
  dropped.reset();
  EXPECT_FALSE(Exists(dropped_path));
}

TEST_F(WritableCacheTest, ConcurrentWritersReadersAndRenamesAgree) {
  constexpr int kThreads = 4;
  FakeOrigin origin(2 * kThreads * S);
  auto cache = Make("m.bin", origin.size());
  std::vector<std::thread> threads;
  std::vector<int> matched(kThreads, 0);  // not vector<bool>: threads set neighbouring elements
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread owns two sectors and keeps a model of them. Writes never
      // end on the region's end, so no thread fetches another's sector.
      const long long base = 2 * S * t;
      std::vector<char> model = OriginBytes(base, 2 * S);
      std::mt19937_64 random(t);
      for (int i = 0; i < 20; ++i) {
        long long offset = static_cast<long long>(random() % (2 * S - 2000));
        const std::vector<char> data(1000, static_cast<char>('a' + i));
        if (Store(*cache, data, base + offset, origin.size(), &origin) != kOk) return;
        std::copy(data.begin(), data.end(), model.begin() + offset);
      }
      std::vector<char> back(static_cast<size_t>(2 * S));
      _READDATA rd = ReadRequest(back, base, &origin);
      matched[t] = cache->Read(&rd) == kOk && back == model;
    });
  }
  std::thread renamer([&] {
    for (int i = 0; i < 200; ++i) {
      cache->ChangeFileName(i % 2 ? "m.bin" : "renamed.bin");
      cache->GetFileSize();
    }
  });
  for (auto& thread : threads) thread.join();
  renamer.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(matched[t]) << "thread " << t;
}

TEST_F(WritableCacheTest, ConversionHandsTheLocalFileToAReadonlyCache) {
  for (long long size : {2 * S + 1, 0LL}) {
    SCOPED_TRACE(size);
    auto cache = Make("big.bin", size);
    const std::string path = cache->GetCachePath();
    const std::vector<char> data = OriginBytes(0, size);
    if (size > 0) {
      ASSERT_EQ(Store(*cache, data, 0, size), kOk);
    }
    std::unique_ptr<ICacheFile> converted(cache->RebuildToReadonlyCache(nullptr, &config_));
    ASSERT_NE(converted, nullptr);
    EXPECT_TRUE(converted->IsReadonly());
    EXPECT_EQ(cache->Close(true), kErrNotOpen);
    cache.reset();
    EXPECT_TRUE(Exists(path));
    EXPECT_EQ(converted->GetFileSize(), size);
    EXPECT_EQ(LocalBytes(*converted, 0, size + 1), data);
  }
}

}  // namespace
