// The whole-file writable cache against a deterministic origin.
#include "cache/writable_cache.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <random>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"

namespace {

constexpr long long S = kSectorSize;
using Requests = std::vector<std::pair<long long, long>>;

std::pair<long long, long> Span(long long offset, long long length) {
  return {offset, static_cast<long>(length)};
}

_READDATA ReadAt(std::vector<char>& buffer, long long offset, IFetch* fetch) {
  return _READDATA{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), 0, fetch, 0, false};
}

_WRITEDATA WriteAt(const std::vector<char>& data, long long offset, long long file_size, IFetch* fetch) {
  return _WRITEDATA{data.data(), offset, data.size(), 0, std::make_shared<_FS_HANDLE>(), file_size, fetch};
}

// The local file's bytes as the cache serves them without fetching.
std::vector<char> LocalBytes(WritableCache& cache, long long offset, long long size) {
  std::vector<char> buffer(static_cast<size_t>(size));
  _READDATA rd = ReadAt(buffer, offset, nullptr);
  EXPECT_EQ(cache.Read(&rd), kOk);
  buffer.resize(rd.transferred);
  return buffer;
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Remembers the handles the cache passes to the origin.
class HandleRecordingOrigin : public IFetch {
 public:
  explicit HandleRecordingOrigin(FakeOrigin* origin) : origin_(origin) {}
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override {
    fetched_.push_back(*handle);
    return origin_->Fetch(offset, length, handle, callback);
  }
  std::string HandleInfo(_FS_HANDLE* handle) override {
    ++named_;
    return origin_->HandleInfo(handle);
  }
  std::vector<_FS_HANDLE> fetched_;
  int named_ = 0;

 private:
  FakeOrigin* origin_;
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
  RecordingLog log;
  auto a = Make("a.txt", 0);
  auto a0 = Make("a.txt", 0);
  auto a1 = Make("a.txt", 0);
  EXPECT_EQ(a->GetCachePath(), Dir() + "a.txt");
  EXPECT_EQ(a0->GetCachePath(), Dir() + "a[0].txt");
  EXPECT_EQ(a1->GetCachePath(), Dir() + "a[1].txt");
  EXPECT_EQ(log.Count("[CACHE     ] [a.txt] Writable cache created"), 3);
  // Without a dot the whole name is the extension.
  auto n = Make("noext", 0);
  auto n0 = Make("noext", 0);
  EXPECT_EQ(n0->GetCachePath(), Dir() + "[0].noext");
  // Only the last dot separates; a directory takes a name as a file does.
  ASSERT_EQ(mkdir((Dir() + "x.y.bin").c_str(), 0700), 0);
  EXPECT_EQ(Make("x.y.bin", 0)->GetCachePath(), Dir() + "x.y[0].bin");
  // drive:name:rest names the file and the log lines by its middle part.
  auto b = Make("drive:b.txt:rest", 0);
  EXPECT_EQ(b->GetCachePath(), Dir() + "b.txt");
  EXPECT_EQ(b->GetFileName(), "b.txt");
}

TEST_F(WritableCacheTest, UncreatableFileThrows3004AndLogsError) {
  RecordingLog log;
  dir_.Write("plain", "x");  // a regular file where a directory should be
  const std::string path = dir_.File("plain") + "/f.bin";
  AERROR thrown = kOk;
  try {
    WritableCache cache(dir_.File("plain") + "/", "f.bin", S, nullptr, &config_);
  } catch (AERROR error) {
    thrown = error;
  }
  EXPECT_EQ(thrown, kErrCreateFile);
  char expected[512];
  std::snprintf(expected, sizeof expected, "[CACHE     ] Cache creation has failed : %s(%x)", path.c_str(),
                static_cast<unsigned>(ENOTDIR));
  EXPECT_EQ(log.LevelOf(expected), LOGLEVEL_ERROR);
}

TEST_F(WritableCacheTest, ReadFetchesEveryTouchedHoleInAdjacentRuns) {
  RecordingLog log;
  FakeOrigin origin(6 * S + 100);
  auto cache = Make("r.bin", origin.size());

  std::vector<char> small(100);
  _READDATA rd = ReadAt(small, 10, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 100u);
  EXPECT_EQ(FakeOrigin::FirstMismatch(small.data(), 10, 100), -1);
  EXPECT_EQ(origin.Requests(), Requests{Span(0, S)});
  EXPECT_EQ(log.LevelOf("[CACHE     ] [r.bin] Read-ahead for writable cache : 0, 524288"), LOGLEVEL_INFO);
  // A sector written whole without a fetcher is no hole any more.
  std::vector<char> written(S, 'w');
  _WRITEDATA wd = WriteAt(written, 2 * S, origin.size(), nullptr);
  ASSERT_EQ(cache->Write(&wd), kOk);

  // Sectors 1 and 3 are holes around the written sector 2: two runs.
  origin.ClearRequests();
  std::vector<char> span(2 * S - 95);
  rd = ReadAt(span, S + 100, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(origin.Requests(), (Requests{Span(S, S), Span(3 * S, S)}));
  EXPECT_EQ(FakeOrigin::FirstMismatch(span.data(), S + 100, S - 100), -1);
  EXPECT_EQ(std::vector<char>(span.begin() + (S - 100), span.begin() + (2 * S - 100)), written);
  EXPECT_EQ(FakeOrigin::FirstMismatch(span.data() + 2 * S - 100, 3 * S, 5), -1);
  // Holes the read covers whole are fetched too, adjacent ones as one run.
  origin.ClearRequests();
  std::vector<char> tail(2 * S + 100);
  rd = ReadAt(tail, 4 * S, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(origin.Requests(), Requests{Span(4 * S, 3 * S)});
  EXPECT_EQ(FakeOrigin::FirstMismatch(tail.data(), 4 * S, static_cast<long long>(rd.transferred)), -1);
  // Nothing fetched twice, nothing fetched at or past the logical size.
  origin.ClearRequests();
  rd = ReadAt(span, S + 100, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  rd = ReadAt(small, origin.size(), &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 0u);
  EXPECT_TRUE(origin.Requests().empty());
}

TEST_F(WritableCacheTest, WriteFetchesPartlyCoveredHeadAndTailFirst) {
  // What one write into a fresh cache of `size` bytes of holes fetches, and
  // what FillEmptySectors then still finds to fetch.
  auto fetches_of = [&](long long size, long long offset, long long length, long long file_size) {
    FakeOrigin origin(size);
    auto cache = Make("w.bin", size);
    std::vector<char> data(static_cast<size_t>(length), 'w');
    _WRITEDATA wd = WriteAt(data, offset, file_size, &origin);
    EXPECT_EQ(cache->Write(&wd), kOk);
    EXPECT_EQ(wd.transferred, data.size());
    Requests by_write = origin.Requests();
    origin.ClearRequests();
    EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
    return std::make_pair(by_write, origin.Requests());
  };
  using Both = std::pair<Requests, Requests>;
  EXPECT_EQ(fetches_of(4 * S, 10, 100, 4 * S), (Both{{Span(0, S)}, {Span(S, 3 * S)}}));
  EXPECT_EQ(fetches_of(4 * S, S - 10, 20, 4 * S), (Both{{Span(0, 2 * S)}, {Span(2 * S, 2 * S)}}));
  EXPECT_EQ(fetches_of(4 * S, S / 2, 2 * S, 4 * S), (Both{{Span(0, S), Span(2 * S, S)}, {Span(3 * S, S)}}));
  // Writes ending on a boundary fetch the sector that starts there as tail.
  EXPECT_EQ(fetches_of(2 * S, 0, S, 2 * S), (Both{{Span(S, S)}, {}}));
  EXPECT_EQ(fetches_of(4 * S, S, 2 * S, 4 * S), (Both{{Span(3 * S, S)}, {Span(0, S)}}));
  // Whole-file writes: offset 0 and the request's file size as end.
  EXPECT_EQ(fetches_of(4 * S, 0, 4 * S, 4 * S), (Both{{}, {}}));
  EXPECT_EQ(fetches_of(4 * S, 0, 100, 100), (Both{{}, {Span(S, 3 * S)}}));
  // Past the logical size: nothing fetched, the holes before it stay.
  EXPECT_EQ(fetches_of(2 * S, 3 * S, 10, 2 * S), (Both{{}, {Span(0, 2 * S)}}));

  // The head's origin bytes arrive before the write lands on them.
  FakeOrigin origin(4 * S);
  auto cache = Make("w.bin", origin.size());
  std::vector<char> data(100, 'w');
  _WRITEDATA wd = WriteAt(data, 10, origin.size(), &origin);
  ASSERT_EQ(cache->Write(&wd), kOk);
  std::vector<char> expected(200);
  for (long long i = 0; i < 200; ++i) expected[i] = i >= 10 && i < 110 ? 'w' : FakeOrigin::ByteAt(i);
  EXPECT_EQ(LocalBytes(*cache, 0, 200), expected);
}

TEST_F(WritableCacheTest, TruncateKeepsTheEndSectorsHoleAndGrowsWithZeros) {
  FakeOrigin origin(4 * S);
  auto cache = Make("t.bin", origin.size());
  // A cut on a boundary: the sector starting at the new end keeps its hole,
  // but reads from the end on fetch nothing.
  ASSERT_EQ(cache->Truncate(S), kOk);
  std::vector<char> at_end(100);
  _READDATA rd = ReadAt(at_end, S, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(rd.transferred, 0u);
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(origin.Requests(), Requests{Span(0, 2 * S)});

  // Growing adds zeros, not holes.
  origin.ClearRequests();
  ASSERT_EQ(cache->Truncate(5 * S), kOk);
  EXPECT_EQ(cache->GetFileSize(), 5 * S);
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  std::vector<char> zeros(100, 'x');
  rd = ReadAt(zeros, 4 * S, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(zeros, std::vector<char>(100, '\0'));
  EXPECT_TRUE(origin.Requests().empty());

  EXPECT_EQ(cache->Truncate(-1), kErrFileWrite);
}

TEST_F(WritableCacheTest, FillEmptySectorsFetchesEveryHoleUnderItsOwnHandle) {
  FakeOrigin origin(3 * S + 12345);
  HandleRecordingOrigin recorder(&origin);
  auto cache = Make("f.bin", origin.size());
  std::vector<char> data(10, 'f');
  _WRITEDATA wd = WriteAt(data, S + 5, origin.size(), nullptr);  // no fetcher: sector 1 is zeros now
  ASSERT_EQ(cache->Write(&wd), kOk);

  EXPECT_EQ(cache->FillEmptySectors(&recorder), kOk);
  EXPECT_EQ(origin.Requests(), (Requests{Span(0, S), Span(2 * S, 2 * S)}));
  // The fetcher names the handle first, then every run goes out under it.
  EXPECT_EQ(recorder.named_, 1);
  ASSERT_EQ(recorder.fetched_.size(), 2u);
  for (const _FS_HANDLE& h : recorder.fetched_) {
    EXPECT_EQ(std::make_tuple(h.type, h.state, h.id, h.info),
              std::make_tuple(2, 1, int64_t{0}, std::string("origin-handle-info")));
  }

  std::vector<char> local = LocalBytes(*cache, 0, origin.size());
  ASSERT_EQ(static_cast<long long>(local.size()), origin.size());
  EXPECT_EQ(FakeOrigin::FirstMismatch(local.data(), 0, S), -1);
  EXPECT_EQ(std::string(local.begin() + S, local.begin() + S + 20), std::string(5, '\0') + "ffffffffff" + std::string(5, '\0'));
  EXPECT_EQ(FakeOrigin::FirstMismatch(local.data() + 2 * S, 2 * S, S + 12345), -1);
  origin.ClearRequests();
  EXPECT_EQ(cache->FillEmptySectors(&recorder), kOk);
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->FillEmptySectors(nullptr), kErrInvalidArgument);
}

TEST_F(WritableCacheTest, FailedFetchesLeaveHolesAndServeTheLocalFile) {
  RecordingLog log;
  FakeOrigin origin(3 * S);
  origin.set_mode(FakeOrigin::Mode::kFail);
  auto cache = Make("x.bin", origin.size());
  std::vector<char> middle(S, 'm');
  _WRITEDATA wd = WriteAt(middle, S, origin.size(), nullptr);
  ASSERT_EQ(cache->Write(&wd), kOk);

  // Both runs are tried; the read then serves the local file as it is.
  std::vector<char> all(3 * S);
  _READDATA rd = ReadAt(all, 0, &origin);
  ASSERT_EQ(cache->Read(&rd), kOk);
  EXPECT_EQ(origin.Requests(), (Requests{Span(0, S), Span(2 * S, S)}));
  EXPECT_EQ(log.LevelOf("Read-ahead for writable cache failed : 1048576, 524288"), LOGLEVEL_ERROR);
  ASSERT_EQ(rd.transferred, static_cast<unsigned long long>(2 * S));
  EXPECT_EQ(std::vector<char>(all.begin(), all.begin() + S), std::vector<char>(S, '\0'));

  // The write goes on; the sector it touched is no hole afterwards.
  std::vector<char> data(100, 'd');
  wd = WriteAt(data, 10, origin.size(), &origin);
  ASSERT_EQ(cache->Write(&wd), kOk);
  origin.set_mode(FakeOrigin::Mode::kNormal);
  origin.ClearRequests();
  EXPECT_EQ(cache->FillEmptySectors(&origin), kOk);
  EXPECT_EQ(origin.Requests(), Requests{Span(2 * S, S)});
  EXPECT_EQ(std::string(LocalBytes(*cache, 0, 110).data(), 110), std::string(10, '\0') + std::string(100, 'd'));
}

TEST_F(WritableCacheTest, CloseWithRemovalDeletesOnceAndDestructionDeletes) {
  auto cache = Make("c.bin", 0);
  const std::string path = cache->GetCachePath();
  std::vector<char> data(10, 'c');
  _WRITEDATA wd = WriteAt(data, 0, 10, nullptr);
  ASSERT_EQ(cache->Write(&wd), kOk);

  EXPECT_EQ(cache->Close(false), kOk);
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(LocalBytes(*cache, 0, 10), data);

  EXPECT_EQ(cache->Close(true), kOk);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(cache->Close(true), kErrNotOpen);
  std::vector<char> buffer(10);
  _READDATA rd = ReadAt(buffer, 0, nullptr);
  EXPECT_EQ(cache->Read(&rd), kErrRead);
  EXPECT_EQ(cache->Write(&wd), kErrFileWrite);
  cache.reset();

  auto dropped = Make("d.bin", S);
  const std::string dropped_path = dropped->GetCachePath();
  EXPECT_TRUE(Exists(dropped_path));
  dropped.reset();
  EXPECT_FALSE(Exists(dropped_path));
}

TEST_F(WritableCacheTest, RangesOutsideTheFileFailWithoutTouchingIt) {
  FakeOrigin origin(S);
  auto cache = Make("n.bin", origin.size());
  std::vector<char> buffer(10);
  _READDATA rd = ReadAt(buffer, -1, &origin);
  EXPECT_EQ(cache->Read(&rd), kErrFileRead);
  rd = ReadAt(buffer, 10, &origin);
  rd.size = ULLONG_MAX;
  EXPECT_EQ(cache->Read(&rd), kErrFileRead);
  _WRITEDATA wd = WriteAt(buffer, -5, origin.size(), &origin);
  EXPECT_EQ(cache->Write(&wd), kErrFileWrite);
  wd = WriteAt(buffer, LLONG_MAX - 5, origin.size(), &origin);
  EXPECT_EQ(cache->Write(&wd), kErrFileWrite);
  EXPECT_EQ(cache->FetchWrite(0, buffer.data(), -1, nullptr), static_cast<int>(kErrFileWrite));
  EXPECT_TRUE(origin.Requests().empty());
  EXPECT_EQ(cache->GetFileSize(), 0);
}

TEST_F(WritableCacheTest, ConcurrentWritersReadersAndRenamesAgree) {
  RecordingLog log;
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
      std::vector<char> model(2 * S);
      for (long long i = 0; i < 2 * S; ++i) model[i] = FakeOrigin::ByteAt(base + i);
      std::mt19937_64 random(t);
      for (int i = 0; i < 20; ++i) {
        long long offset = static_cast<long long>(random() % (2 * S - 2000));
        std::vector<char> data(1000, static_cast<char>('a' + i));
        _WRITEDATA wd = WriteAt(data, base + offset, origin.size(), &origin);
        if (cache->Write(&wd) != kOk) return;
        std::copy(data.begin(), data.end(), model.begin() + offset);
      }
      std::vector<char> back(2 * S);
      _READDATA rd = ReadAt(back, base, &origin);
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
  RecordingLog log;
  auto cache = Make("big.bin", 2 * S + 1);
  const std::string path = cache->GetCachePath();
  std::vector<char> data(2 * S + 1);
  for (size_t i = 0; i < data.size(); ++i) data[i] = FakeOrigin::ByteAt(static_cast<long long>(i));
  _WRITEDATA wd = WriteAt(data, 0, 2 * S + 1, nullptr);
  ASSERT_EQ(cache->Write(&wd), kOk);

  std::unique_ptr<ICacheFile> converted(cache->RebuildToReadonlyCache(nullptr, &config_));
  ASSERT_NE(converted, nullptr);
  EXPECT_TRUE(converted->IsReadonly());
  EXPECT_EQ(log.Count("[CACHE     ] [big.bin] [ReadonlyCache] Inserted new sector"), 3);
  EXPECT_EQ(cache->Close(true), kErrNotOpen);
  cache.reset();
  EXPECT_TRUE(Exists(path));

  std::vector<char> back(2 * S + 1);
  _READDATA rd = ReadAt(back, 0, nullptr);
  ASSERT_EQ(converted->Read(&rd), kOk);
  EXPECT_EQ(back, data);
  auto empty = Make("empty.bin", 0);
  std::unique_ptr<ICacheFile> converted_empty(empty->RebuildToReadonlyCache(nullptr, &config_));
  empty.reset();
  EXPECT_EQ(log.Count("[CACHE     ] [empty.bin] [ReadonlyCache] Inserted new sector"), 0);
  EXPECT_EQ(converted_empty->GetFileSize(), 0);
}

}  // namespace
