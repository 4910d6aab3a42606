// The log lines whose wording and level are fixed: each row is what makes the
// library write some of them, and the whole lines it must write, in order.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
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

constexpr long long kMiB = 1048576, kHalf = 524288;

struct Env {
  RecordingLog log;  // first in, last out: it sees every destructor's lines
  TempDir dir;
  FakeConfig config;
  FakeOrigin origin{8 * kMiB};
  _CACHECONFIG conf = kDefaultCacheConfig;
  std::string Dir() const { return dir.path() + "/"; }
};

// Each line's level as a letter (Debug, Info, Warning, Error), a blank, then
// the text after the tag "[CACHE     ] ".
using Lines = std::vector<std::string>;

// One read of 100 bytes at `offset` through `file` into `buffer`, or a buffer of its own.
unsigned int ReadAt(ICacheFile& file, long long offset, FakeOrigin* origin, long long timeout = 0, bool whole = false,
                    std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>(), char* buffer = nullptr) {
  std::vector<char> own(100);
  _READDATA rd{buffer != nullptr ? buffer : own.data(), offset, 100, 0, handle, origin->size(), origin, timeout, whole};
  return file.Read(&rd);
}

// What makes the library log, and the whole lines it must have logged.
struct Row { const char* what; Lines (*trigger)(Env&); };

const Row kRows[] = {
    {"cache object created and switched", [](Env& e) {
       CacheObj obj(e.Dir(), "a.bin", 'r', e.origin.size(), &e.origin, &e.config, "d/a.bin");
       EXPECT_EQ(obj.SetMode('x', e.origin.size(), &e.origin), kErrInvalidMode);
       EXPECT_EQ(obj.SetMode('w', e.origin.size(), &e.origin), kOk);
       EXPECT_EQ(obj.SetMode('r', e.origin.size(), &e.origin), kOk);
       return Lines{"I Create cache for a.bin:r", "I [a.bin] Read only cache initialized",
                    "E SetMode : Invalid cache mode", "I SetMode : Read-only cache found. Change to writable cache.",
                    "I [a.bin] Writable cache created", "I SetMode : Writable cache found. Change to read-only cache."};
     }},
    {"handles closed for idleness: the cache file deleted, then blocked; a stream still held", [](Env& e) {
       ReadonlyCache cache(e.Dir(), "gone.bin", e.origin.size(), &e.config);
       const std::string path = cache.GetCachePath();
       for (int i = 0; i < 2; ++i) {
         EXPECT_EQ(ReadAt(cache, 0, &e.origin), kOk);
         AdvanceClockForTesting(TimedHandle::kIdleTimeout);
         EXPECT_TRUE(cache.CheckHandles());
         EXPECT_EQ(std::remove(path.c_str()), 0);
       }
       EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin), kErrRead);
       const std::string held_path = e.dir.File("h"), h = "D [" + held_path + "] ";
       TimedHandle handle(held_path);
       handle = std::fopen(held_path.c_str(), "w");
       std::shared_ptr<FILE> held = handle.GetHandle();
       AdvanceClockForTesting(TimedHandle::kIdleTimeout);
       EXPECT_FALSE(handle.CloseIfExpired());
       handle.Close();
       held.reset();
       handle.Close();
       return Lines{"D [" + path + "] Cache handle closed",
                    "W Cache file is deleted. Clear cache information. : " + path,
                    "E Cache open has failed : " + path + "(" + std::to_string(EISDIR) + ")",
                    h + "Trying to close cache handle but there are references",
                    h + "Trying to close cache handle but there are references : force close",
                    h + "Cache handle closed : force close"};
     }},
    {"origin fails a fetch and a whole-file fetch, a fetch write is unaligned, then a whole-file read", [](Env& e) {
       ReadonlyCache cache(e.Dir(), "f", e.origin.size(), &e.config);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       EXPECT_EQ(ReadAt(cache, kMiB, &e.origin), kErrRead);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, 0, true), kErrRead);
       EXPECT_EQ(cache.FetchWrite(kMiB + 1, "x", 1, nullptr), static_cast<int>(kErrUnaligned));
       e.origin.set_mode(FakeOrigin::Mode::kNormal);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, 0, true), kOk);
       return Lines{"I [f] Read only cache opened(" + cache.GetCachePath() + ")",
                    "E [f] Read-ahead failed : 1048576, 1048576", "E [f:1] Read-ahead large block failed : 0, 8388608",
                    "E [f] Fetch write failed : Cache offset was not aligned",
                    "D [f] Reserved blocks 0 to 8388608(8388608 bytes)", "D [f] 16 blocks reserved",
                    "I [f] Trying to fetch whole file(8388608 bytes).", "I [f] Read-ahead large block : 0, 8388608",
                    "D [f] AsyncLargeFetch : 0, 8388608", "I [f] Read-ahead large : clear empty reserved block(s)",
                    "D [f] Clear reserved blocks 0 to 8388608(8388608 bytes)",
                    "I [f] Read-ahead large block done : 0, 8388608", "I [f] Read only cache uninitialized"};
     }},
    {"queue drops the fetch, client handle closed, then a read times out", [](Env& e) {
       ReadonlyCache cache(e.Dir(), "slow.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kDrop);
       EXPECT_EQ(ReadAt(cache, kMiB, &e.origin, 30000), kErrRead);
       queue.set_mode(TestQueue::Mode::kHold);
       auto closed = std::make_shared<_FS_HANDLE>();
       closed->state = 3;
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, -1, false, closed), kErrHandleClosed);
       std::vector<char> buffer(100);
       ReadAt(cache, kHalf + 5, &e.origin, 1, false, std::make_shared<_FS_HANDLE>(), buffer.data());
       char timed_out[256];
       std::snprintf(timed_out, sizeof timed_out, "E [slow.bin] Read timed-out : %p, %lld, %d(%s)", buffer.data(),
                     kHalf + 5, 100, "last checked sector offset was 524288 on offset 524293, length 100 and reserved");
       return Lines{"E [slow.bin] Read failed : Sector 1048576 not found on sector hash",
                    "E [slow.bin] Read failed : Handle closed before return", timed_out};
     }},
    {"continuous reads start a block, the next finds it busy", [](Env& e) {
       ReadonlyCache cache(e.Dir(), "busy.bin", e.origin.size(), &e.config);
       e.conf.rahit = 2;
       e.config.Set(e.conf);
       TestQueue queue(TestQueue::Mode::kRun);
       ReadAt(cache, 0, &e.origin);
       EXPECT_TRUE(queue.WaitIdle());
       queue.set_mode(TestQueue::Mode::kHold);  // the block waits in the queue
       for (int i = 0; i < 4; ++i) ReadAt(cache, 0, &e.origin);
       queue.CancelHeld();
       return Lines{"D [busy.bin] [QueueEmptySectors] Already 0 is in sectors_.",
                    "D [busy.bin] histsize: 2 but conf.rahit: 2, no read-ahead this time.",
                    "D [busy.bin] Since  histsize: 3 while conf.rahit: 2ld, go read-ahead!",
                    "I [busy.bin] Read-ahead from 524288, 1048576 bytes",
                    "D [busy.bin] [CheckReadAhead] There is a busy read_ahead_!"};
     }},
    {"a read behind the last one, then reads beyond the quota", [](Env& e) {
       ReadonlyCache cache(e.Dir(), "back", e.origin.size(), &e.config);
       ReadAt(cache, 2 * kMiB, &e.origin);
       ReadAt(cache, 0, &e.origin);
       EXPECT_EQ(cache.GetLargestEmptyOffset(0), kHalf);
       e.config.SetQuota(kHalf);
       ReadAt(cache, 0, &e.origin);
       return Lines{"D [back] [CheckReadAhead] Closest empty offset is within the quota!",
                    "D [back] [CheckReadAhead] No history yet!",
                    "D [back] [QueueEmptySectors] Inserted new sector 2097152 into sectors_.",
                    "D [back] Queue empty offset 2097152 to 3145728(1048576 bytes)",
                    "I [back] Read-ahead : 2097152, 1048576", "I [back] Read-ahead : clear empty reserved block(s)",
                    "I [back] Read-ahead done : 2097152, 1048576",
                    "D [back] Reserving offsets are not continuous. Clearing history.",
                    "D [back] Fetch write : Sector 0 reserved and write on 1048576",
                    "I [back] At GetLargestEmptyOffset, empty_sectors_ is empty.",
                    "D [back] [CheckReadAhead] Closest empty offset exceeds the quota!"};
     }},
    {"eviction of the older half, then of everything", [](Env& e) {
       ReadonlyCache cache(e.Dir(), "old.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       AdvanceClockForTesting(std::chrono::seconds(200));
       ReadAt(cache, 2 * kMiB, &e.origin);
       for (unsigned age : {100, 0}) {
         e.conf.clrused = e.conf.clrunused = age;
         e.config.Set(e.conf);
         cache.ClearOldCache(false);
         AdvanceClockForTesting(std::chrono::seconds(1));
       }
       return Lines{"D [old.bin] ClearOldCache : 2 sector(s) will clear(total 4 sector(s))",
                    "I [old.bin] ClearOldCache : OK, 2097152 => 1048576",
                    "I [old.bin] ClearOldCache : OK, 1048576 => 0(Deleted)"};
     }},
    {"writable caches: fetches, failures, a directory under a file, a conversion", [](Env& e) {
       WritableCache cache(e.Dir(), "w.bin", e.origin.size(), &e.origin, &e.config);
       EXPECT_EQ(ReadAt(cache, kMiB + 10, &e.origin), kOk);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       ReadAt(cache, 2 * kMiB, &e.origin);
       _WRITEDATA wd{"x", -1, 1, 0, std::make_shared<_FS_HANDLE>(), e.origin.size(), nullptr};
       EXPECT_EQ(cache.Write(&wd), kErrFileWrite);
       EXPECT_EQ(cache.FetchWrite(-1, "x", 1, nullptr), static_cast<int>(kErrFileWrite));
       const std::string invalid = std::strerror(EINVAL), plain = e.dir.Write("plain", "x");
       EXPECT_THROW(WritableCache(plain + "/", "f", 0, nullptr, &e.config), AERROR);
       EXPECT_THROW(Cache(plain.c_str(), 0), AERROR);
       char line[512];
       std::snprintf(line, sizeof line, "E Cache creation has failed : %s/f(%x)", plain.c_str(), ENOTDIR);
       WritableCache big(e.Dir(), "big.bin", kMiB + 1, nullptr, &e.config);
       std::vector<char> bytes(kMiB + 1);
       wd = {bytes.data(), 0, bytes.size(), 0, std::make_shared<_FS_HANDLE>(), kMiB + 1, nullptr};
       EXPECT_EQ(big.Write(&wd), kOk);
       std::unique_ptr<ICacheFile> converted(big.RebuildToReadonlyCache(nullptr, &e.config));
       return Lines{"I [w.bin] Read-ahead for writable cache : 1048576, 524288",
                    "E [w.bin] Read-ahead for writable cache failed : 2097152, 524288",
                    "E [w.bin] Write failed : " + invalid, "E [w.bin] Fetch write failed : " + invalid, line,
                    "E Cache path not found : " + plain + "/", "I [big.bin] Writable cache to read only cache",
                    "I [big.bin] Read only cache from writable cache created"};
     }},
    {"manager from start to end", [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       const std::string limit = LocaleNumber(static_cast<long long>(cache.GetLimit()));
       EXPECT_TRUE(WaitFor([&] { return e.log.Count("Cache quota manager started") > 0; }));
       EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":1,"min":2,"max":3},"read":{"timeout":4,
           "maxfetch":5},"clear":{"period":0,"usedblock":7,"unusedblock":8,"over":{"usedblock":9,
           "unusedblock":10}}}})"), kOk);
       const std::string total =
           "[CACHE] [" + cache.path() + "] Total cache : 0(limits : " + std::to_string(cache.GetLimit()) + ")";
       // A settings file beside the program may have let one pass run before.
       const int earlier = e.log.Count(total);
       EXPECT_TRUE(WaitFor([&] { return e.log.Count(total) > earlier; }));
       EXPECT_EQ(cache.SetLimit(64 * kMiB - 1), kErrLimitTooSmall);
       EXPECT_EQ(cache.SetLimit(64 * kMiB), kOk);
       cache.Open("x/a.bin", 'r', e.origin.size(), &e.origin);
       cache.Open("x/a.bin", 'w', e.origin.size(), &e.origin);
       EXPECT_EQ(cache.Rehash("x/a.bin", "b.bin", "b.bin"), kOk);
       EXPECT_EQ(cache.Close("b.bin"), kOk);
       // The lines of the manager's end come as it goes, when this returns.
       return Lines{"I Cache initialized : " + cache.path() + ", Storage limit : " + limit + " bytes",
                    "D Cache quota manager started", "D Cache configuration : 1, 2, 3, 4, 5, 0, 7, 8, 9, 10",
                    "D " + total, "E Change cache storage limit requested but too small : Requested " + limit + " bytes",
                    "I Storage limit changed : " + LocaleNumber(static_cast<long long>(cache.GetLimit())) + " bytes",
                    "W Cache found for x/a.bin but read-only. Convert to writable cache forcefully.",
                    "I Rehash cache : x/a.bin to b.bin", "I Close cache : b.bin", "I Uninitialize cache...",
                    "D Cache quota manager stopped", "I Cache uninitialized"};
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
      for (const auto& line : env.log.Lines())  // a LOGLEVEL's letter is at its value
        logged.push_back(std::string(1, line.first < 9 ? " DI W   E"[line.first] : '?') + " " + line.second);
    }
    ResetClockForTesting();
    auto at = logged.begin();
    for (const std::string& line : expected) {
      at = std::find(at, logged.end(), line.substr(0, 2) + "[CACHE     ] " + line.substr(2));
      EXPECT_NE(at, logged.end()) << "no line, or not in order: " << line;
      if (at == logged.end()) break;
    }
  }
}

}  // namespace
