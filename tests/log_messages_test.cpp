// The log lines whose wording and level are fixed: each row is what makes the
// library write some of them, and the whole lines it must write, in order.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cache/cache_manager.h"
#include "cache/cache_obj.h"
#include "cache/number_text.h"
#include "cache/readonly_cache.h"
#include "cache/timed_handle.h"
#include "cache/writable_cache.h"
#include "common/clock.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

constexpr long long kMiB = 1048576;
constexpr long long kHalf = 524288;

struct Env {
  RecordingLog log;  // first in, last out: it sees every destructor's lines
  TempDir dir;
  FakeConfig config;
  FakeOrigin origin{8 * kMiB};
  std::string Dir() const { return dir.path() + "/"; }
  template <typename Change>
  void Configure(Change change) {
    _CACHECONFIG conf = config.GetConfig();
    change(conf);
    config.Set(conf);
  }
};

using Lines = std::vector<std::pair<LOGLEVEL, std::string>>;

// A line as the library writes it: the tag, then `text`.
std::pair<LOGLEVEL, std::string> Line(LOGLEVEL level, const std::string& text) {
  return {level, "[CACHE     ] " + text};
}
constexpr LOGLEVEL kDebug = LOGLEVEL_DEBUG, kInfo = LOGLEVEL_INFO, kWarn = LOGLEVEL_WARNING, kError = LOGLEVEL_ERROR;

// One read of 100 bytes at `offset` through `file` into `buffer`, or a buffer of its own.
unsigned int ReadAt(ICacheFile& file, long long offset, FakeOrigin* origin, long long timeout = 0,
                    bool whole = false, std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>(),
                    std::vector<char>* buffer = nullptr) {
  std::vector<char> own(100);
  std::vector<char>& bytes = buffer != nullptr ? *buffer : own;
  _READDATA rd{bytes.data(), offset, bytes.size(), 0, handle, origin->size(), origin, timeout, whole};
  return file.Read(&rd);
}

struct Row {
  const char* what;
  // Makes the library log; returns the whole lines it must have logged.
  std::function<Lines(Env&)> trigger;
};

const Row kRows[] = {
    {"cache object created and switched",
     [](Env& e) {
       CacheObj obj(e.Dir(), "a.bin", 'r', e.origin.size(), &e.origin, &e.config, "d/a.bin");
       EXPECT_EQ(obj.SetMode('x', e.origin.size(), &e.origin), kErrInvalidMode);
       EXPECT_EQ(obj.SetMode('w', e.origin.size(), &e.origin), kOk);
       EXPECT_EQ(obj.SetMode('r', e.origin.size(), &e.origin), kOk);
       return Lines{Line(kInfo, "Create cache for a.bin:r"), Line(kInfo, "[a.bin] Read only cache initialized"),
                    Line(kError, "SetMode : Invalid cache mode"),
                    Line(kInfo, "SetMode : Read-only cache found. Change to writable cache."),
                    Line(kInfo, "[a.bin] Writable cache created"),
                    Line(kInfo, "SetMode : Writable cache found. Change to read-only cache.")};
     }},
    {"sector cache file deleted while closed for idleness",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "gone.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       AdvanceClockForTesting(TimedHandle::kIdleTimeout);
       EXPECT_TRUE(cache.CheckHandles());
       EXPECT_EQ(std::remove(cache.GetCachePath().c_str()), 0);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin), kOk);
       return Lines{Line(kDebug, "[" + cache.GetCachePath() + "] Cache handle closed"),
                    Line(kWarn, "Cache file is deleted. Clear cache information. : " + cache.GetCachePath())};
     }},
    {"sector cache file cannot be opened",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "blocked.bin", e.origin.size(), &e.config);
       EXPECT_EQ(mkdir(cache.GetCachePath().c_str(), 0700), 0);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin), kErrRead);
       return Lines{Line(kError, "Cache open has failed : " + cache.GetCachePath() + "(" + std::to_string(EISDIR) + ")")};
     }},
    {"whole-file read",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "whole.bin", e.origin.size(), &e.config);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, 0, true), kOk);
       return Lines{Line(kInfo, "[whole.bin] Read only cache opened(" + cache.GetCachePath() + ")"),
                    Line(kDebug, "[whole.bin] Reserved blocks 0 to 8388608(8388608 bytes)"),
                    Line(kDebug, "[whole.bin] 16 blocks reserved"),
                    Line(kInfo, "[whole.bin] Trying to fetch whole file(8388608 bytes)."),
                    Line(kInfo, "[whole.bin] Read-ahead large block : 0, 8388608"),
                    Line(kDebug, "[whole.bin] AsyncLargeFetch : 0, 8388608"),
                    Line(kInfo, "[whole.bin] Read-ahead large : clear empty reserved block(s)"),
                    Line(kDebug, "[whole.bin] Clear reserved blocks 0 to 8388608(8388608 bytes)"),
                    Line(kInfo, "[whole.bin] Read-ahead large block done : 0, 8388608"),
                    Line(kInfo, "[whole.bin] Read only cache uninitialized")};
     }},
    {"origin fails a fetch and a whole-file fetch, a fetch write is unaligned",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "faulty.bin", e.origin.size(), &e.config);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       EXPECT_EQ(ReadAt(cache, kMiB, &e.origin), kErrRead);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, 0, true), kErrRead);
       EXPECT_EQ(cache.FetchWrite(kMiB + 1, "x", 1, nullptr), static_cast<int>(kErrUnaligned));
       return Lines{Line(kError, "[faulty.bin] Read-ahead failed : 1048576, 1048576"),
                    Line(kError, "[faulty.bin:1] Read-ahead large block failed : 0, 8388608"),
                    Line(kError, "[faulty.bin] Fetch write failed : Cache offset was not aligned")};
     }},
    {"queue drops the fetch",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "dropped.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kDrop);
       EXPECT_EQ(ReadAt(cache, kMiB, &e.origin, 30000), kErrRead);
       return Lines{Line(kError, "[dropped.bin] Read failed : Sector 1048576 not found on sector hash")};
     }},
    {"client handle closed, then a read times out",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "slow.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kHold);
       auto closed = std::make_shared<_FS_HANDLE>();
       closed->state = 3;
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, -1, false, closed), kErrHandleClosed);
       std::vector<char> buffer(100);
       EXPECT_EQ(ReadAt(cache, kHalf + 5, &e.origin, 1, false, std::make_shared<_FS_HANDLE>(), &buffer), kErrRead);
       char timed_out[256];
       std::snprintf(timed_out, sizeof timed_out, "[slow.bin] Read timed-out : %p, %lld, %d(%s)",
                     static_cast<void*>(buffer.data()), kHalf + 5, 100,
                     "last checked sector offset was 524288 on offset 524293, length 100 and reserved");
       return Lines{Line(kError, "[slow.bin] Read failed : Handle closed before return"), Line(kError, timed_out)};
     }},
    {"continuous reads start a block, the next finds it busy",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "busy.bin", e.origin.size(), &e.config);
       e.Configure([](_CACHECONFIG& c) { c.rahit = 2; });
       TestQueue queue(TestQueue::Mode::kRun);
       ReadAt(cache, 0, &e.origin);
       EXPECT_TRUE(queue.WaitIdle());
       queue.set_mode(TestQueue::Mode::kHold);  // the block waits in the queue
       for (int i = 0; i < 4; ++i) ReadAt(cache, 0, &e.origin);
       queue.CancelHeld();
       return Lines{Line(kDebug, "[busy.bin] [QueueEmptySectors] Already 0 is in sectors_."),
                    Line(kDebug, "[busy.bin] histsize: 2 but conf.rahit: 2, no read-ahead this time."),
                    Line(kDebug, "[busy.bin] Since  histsize: 3 while conf.rahit: 2ld, go read-ahead!"),
                    Line(kInfo, "[busy.bin] Read-ahead from 524288, 1048576 bytes"),
                    Line(kDebug, "[busy.bin] [CheckReadAhead] There is a busy read_ahead_!")};
     }},
    {"read-ahead beyond the quota",
     [](Env& e) {
       e.config.SetQuota(kHalf);
       ReadonlyCache cache(e.Dir(), "quota.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       ReadAt(cache, 0, &e.origin);
       return Lines{Line(kDebug, "[quota.bin] [CheckReadAhead] Closest empty offset exceeds the quota!")};
     }},
    {"a read behind the last one",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "back.bin", e.origin.size(), &e.config);
       ReadAt(cache, 2 * kMiB, &e.origin);
       ReadAt(cache, 0, &e.origin);
       EXPECT_EQ(cache.GetLargestEmptyOffset(0), kHalf);
       return Lines{Line(kDebug, "[back.bin] [CheckReadAhead] Closest empty offset is within the quota!"),
                    Line(kDebug, "[back.bin] [CheckReadAhead] No history yet!"),
                    Line(kDebug, "[back.bin] [QueueEmptySectors] Inserted new sector 2097152 into sectors_."),
                    Line(kDebug, "[back.bin] Queue empty offset 2097152 to 3145728(1048576 bytes)"),
                    Line(kInfo, "[back.bin] Read-ahead : 2097152, 1048576"),
                    Line(kInfo, "[back.bin] Read-ahead : clear empty reserved block(s)"),
                    Line(kInfo, "[back.bin] Read-ahead done : 2097152, 1048576"),
                    Line(kDebug, "[back.bin] Reserving offsets are not continuous. Clearing history."),
                    Line(kDebug, "[back.bin] Fetch write : Sector 0 reserved and write on 1048576"),
                    Line(kInfo, "[back.bin] At GetLargestEmptyOffset, empty_sectors_ is empty.")};
     }},
    {"eviction of the older half, then of everything",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "old.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       AdvanceClockForTesting(std::chrono::seconds(200));
       ReadAt(cache, 2 * kMiB, &e.origin);
       e.Configure([](_CACHECONFIG& c) { c.clrused = c.clrunused = 100; });
       cache.ClearOldCache(false);
       AdvanceClockForTesting(std::chrono::seconds(1));
       e.Configure([](_CACHECONFIG& c) { c.clrused = c.clrunused = 0; });
       cache.ClearOldCache(false);
       return Lines{Line(kDebug, "[old.bin] ClearOldCache : 2 sector(s) will clear(total 4 sector(s))"),
                    Line(kInfo, "[old.bin] ClearOldCache : OK, 2097152 => 1048576"),
                    Line(kInfo, "[old.bin] ClearOldCache : OK, 1048576 => 0(Deleted)")};
     }},
    {"writable cache fetches, then fails",
     [](Env& e) {
       WritableCache cache(e.Dir(), "w.bin", e.origin.size(), &e.origin, &e.config);
       EXPECT_EQ(ReadAt(cache, kMiB + 10, &e.origin), kOk);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       ReadAt(cache, 2 * kMiB, &e.origin);
       _WRITEDATA wd{"x", -1, 1, 0, std::make_shared<_FS_HANDLE>(), e.origin.size(), nullptr};
       EXPECT_EQ(cache.Write(&wd), kErrFileWrite);
       EXPECT_EQ(cache.FetchWrite(-1, "x", 1, nullptr), static_cast<int>(kErrFileWrite));
       const std::string invalid = std::strerror(EINVAL);
       return Lines{Line(kInfo, "[w.bin] Read-ahead for writable cache : 1048576, 524288"),
                    Line(kError, "[w.bin] Read-ahead for writable cache failed : 2097152, 524288"),
                    Line(kError, "[w.bin] Write failed : " + invalid),
                    Line(kError, "[w.bin] Fetch write failed : " + invalid)};
     }},
    {"writable cache file and manager directory under a file",
     [](Env& e) {
       e.dir.Write("plain", "x");
       EXPECT_THROW(WritableCache(e.dir.File("plain") + "/", "f.bin", 0, nullptr, &e.config), AERROR);
       EXPECT_THROW(Cache(e.dir.File("plain").c_str(), 0), AERROR);
       char line[512];
       std::snprintf(line, sizeof line, "Cache creation has failed : %s/f.bin(%x)", e.dir.File("plain").c_str(),
                     static_cast<unsigned>(ENOTDIR));
       return Lines{Line(kError, line), Line(kError, "Cache path not found : " + e.dir.File("plain") + "/")};
     }},
    {"writable cache converted",
     [](Env& e) {
       WritableCache cache(e.Dir(), "big.bin", kMiB + 1, nullptr, &e.config);
       std::vector<char> bytes(kMiB + 1);
       _WRITEDATA wd{bytes.data(), 0, bytes.size(), 0, std::make_shared<_FS_HANDLE>(), kMiB + 1, nullptr};
       EXPECT_EQ(cache.Write(&wd), kOk);
       std::unique_ptr<ICacheFile> converted(cache.RebuildToReadonlyCache(nullptr, &e.config));
       return Lines{Line(kInfo, "[big.bin] Writable cache to read only cache"),
                    Line(kInfo, "[big.bin] Read only cache from writable cache created")};
     }},
    {"stream handle closed while held, then free",
     [](Env& e) {
       const std::string path = e.dir.File("h");
       TimedHandle handle(path);
       handle = std::fopen(path.c_str(), "w");
       std::shared_ptr<FILE> held = handle.GetHandle();
       AdvanceClockForTesting(TimedHandle::kIdleTimeout);
       EXPECT_FALSE(handle.CloseIfExpired());
       handle.Close();
       held.reset();
       handle.Close();
       return Lines{Line(kDebug, "[" + path + "] Trying to close cache handle but there are references"),
                    Line(kDebug, "[" + path + "] Trying to close cache handle but there are references : force close"),
                    Line(kDebug, "[" + path + "] Cache handle closed : force close")};
     }},
    {"manager from start to end",
     [](Env& e) {
       Lines lines;
       {
         Cache cache(e.dir.path().c_str(), 0);
         const std::string limit = LocaleNumber(static_cast<long long>(cache.GetLimit()));
         EXPECT_TRUE(WaitFor([&] { return e.log.Count("Cache quota manager started") > 0; }));
         EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":1,"min":2,"max":3},"read":{"timeout":4,
             "maxfetch":5},"clear":{"period":0,"usedblock":7,"unusedblock":8,"over":{"usedblock":9,
             "unusedblock":10}}}})"), kOk);
         const std::string total = "[CACHE] [" + cache.path() + "] Total cache : 0(limits : " +
                                   std::to_string(cache.GetLimit()) + ")";
         // A settings file beside the program may have let one pass run before.
         const int earlier = e.log.Count(total);
         EXPECT_TRUE(WaitFor([&] { return e.log.Count(total) > earlier; }));
         EXPECT_EQ(cache.SetLimit(64 * kMiB - 1), kErrLimitTooSmall);
         EXPECT_EQ(cache.SetLimit(64 * kMiB), kOk);
         cache.Open("x/a.bin", 'r', e.origin.size(), &e.origin);
         cache.Open("x/a.bin", 'w', e.origin.size(), &e.origin);
         EXPECT_EQ(cache.Rehash("x/a.bin", "b.bin", "b.bin"), kOk);
         EXPECT_EQ(cache.Close("b.bin"), kOk);
         lines = {Line(kInfo, "Cache initialized : " + cache.path() + ", Storage limit : " + limit + " bytes"),
                  Line(kDebug, "Cache quota manager started"),
                  Line(kDebug, "Cache configuration : 1, 2, 3, 4, 5, 0, 7, 8, 9, 10"), Line(kDebug, total),
                  Line(kError, "Change cache storage limit requested but too small : Requested " + limit + " bytes"),
                  Line(kInfo, "Storage limit changed : " + LocaleNumber(static_cast<long long>(cache.GetLimit())) +
                                  " bytes"),
                  Line(kWarn, "Cache found for x/a.bin but read-only. Convert to writable cache forcefully."),
                  Line(kInfo, "Rehash cache : x/a.bin to b.bin"), Line(kInfo, "Close cache : b.bin")};
       }
       lines.insert(lines.end(), {Line(kInfo, "Uninitialize cache..."), Line(kDebug, "Cache quota manager stopped"),
                                  Line(kInfo, "Cache uninitialized")});
       return lines;
     }},
};

// Each row's lines must appear in the order given, other lines between them.
TEST(LogMessages, EachFixedMessageIsWrittenWordForWordAtItsLevel) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    Cache_UnbindAsyncQ();
    Lines expected, logged;
    {
      Env env;
      expected = row.trigger(env);
      logged = env.log.Lines();
    }
    ResetClockForTesting();
    auto at = logged.begin();
    for (const auto& line : expected) {
      at = std::find(at, logged.end(), line);
      EXPECT_NE(at, logged.end()) << "no line, or not in order, at level " << line.first << ": " << line.second;
      if (at == logged.end()) break;
    }
  }
}

}  // namespace
