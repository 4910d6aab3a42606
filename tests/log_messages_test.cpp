// The log lines whose wording and level are fixed: each row is what makes the
// library write some of them, and the whole lines it must write, in order.
#include <gtest/gtest.h>

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
};

// One read of 100 bytes at `at` into `buffer`, waiting `wait` ms, through a client handle in `state`.
char buffer[100];
unsigned ReadAt(Env& e, ICacheFile& file, long long at, long long wait = 0, bool whole = false, int state = 0) {
  _READDATA rd{buffer, at, 100, 0, std::make_shared<_FS_HANDLE>(_FS_HANDLE{0, state, 0, ""}),
               e.origin.size(), &e.origin, wait, whole};
  return file.Read(&rd);
}

// Each line's level as a letter (Debug, Info, Warning, Error), a blank, then
// the text after the tag "[CACHE     ] ".
using Lines = std::vector<std::string>;

// The lines must appear in the order given, other lines between them.
TEST(LogMessages, EachFixedMessageIsWrittenWordForWordAtItsLevel) {
  Env e;
  const Lines expected = [&e] {
    Cache cache(e.dir.File("m").c_str(), 0);
    const std::string limit = LocaleNumber(static_cast<long long>(cache.GetLimit()));
    EXPECT_TRUE(WaitFor([&] { return e.log.Count("Cache quota manager started") > 0; }));
    EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":1,"min":2,"max":3},"read":{"timeout":4,"maxfetch":5},
        "clear":{"period":0,"usedblock":7,"unusedblock":8,"over":{"usedblock":9,"unusedblock":10}}}})"), kOk);
    EXPECT_EQ(cache.SetLimit(64 * kMiB - 1), kErrLimitTooSmall);
    EXPECT_EQ(cache.SetLimit(64 * kMiB), kOk);
    cache.RunQuotaPassNow();  // the directory is empty; no blank before "(limits", as the format has it
    const std::string total = "D [CACHE] [" + cache.path() + "] Total cache : 0(limits : 67108864)";
    std::shared_ptr<ICacheObj> obj = cache.Open("x/a.bin", 'r', e.origin.size(), &e.origin);
    cache.Open("x/a.bin", 'w', e.origin.size(), &e.origin);
    for (char mode : {'x', 'r'}) obj->SetMode(mode, e.origin.size(), &e.origin);
    EXPECT_EQ(cache.Rehash("x/a.bin", "b.bin", "b.bin"), kOk);
    EXPECT_EQ(cache.Close("b.bin"), kOk);
    ReadonlyCache f(e.dir.File(""), "f", e.origin.size(), &e.config);
    const std::string path = f.GetCachePath(), plain = e.dir.Write("plain", "x");
    e.origin.set_mode(FakeOrigin::Mode::kFail);
    ReadAt(e, f, kMiB);
    ReadAt(e, f, 0, 0, true);
    f.FetchWrite(kMiB + 1, "x", 1, nullptr);
    e.origin.set_mode(FakeOrigin::Mode::kNormal);
    EXPECT_EQ(ReadAt(e, f, 0, 0, true), kOk);
    EXPECT_EQ(std::remove(path.c_str()), 0);
    AdvanceClockForTesting(std::chrono::seconds(11));  // the handle's idle time-out
    EXPECT_TRUE(f.CheckHandles());
    ReadAt(e, f, 0);
    ReadonlyCache blocked(plain + "/", "x", e.origin.size(), &e.config);
    ReadAt(e, blocked, 0);
    ReadonlyCache back(e.dir.File(""), "r", e.origin.size(), &e.config);
    ReadAt(e, back, 2 * kMiB);
    AdvanceClockForTesting(std::chrono::seconds(200));
    ReadAt(e, back, 0);
    EXPECT_EQ(back.GetLargestEmptyOffset(0), kHalf);
    e.config.SetQuota(kHalf);
    ReadAt(e, back, 0);
    e.conf.rahit = 2;  // for the reads of q
    for (unsigned age : {100, 0}) {
      e.conf.clrused = e.conf.clrunused = age;
      e.config.Set(e.conf);
      back.ClearOldCache(false);
      AdvanceClockForTesting(std::chrono::seconds(1));
    }
    e.config.SetQuota(kMiB * kMiB);
    WritableCache w(e.dir.File(""), "w", e.origin.size(), &e.origin, &e.config);
    EXPECT_EQ(ReadAt(e, w, kMiB + 10), kOk);
    e.origin.set_mode(FakeOrigin::Mode::kFail);
    ReadAt(e, w, 2 * kMiB);
    _WRITEDATA wd{"x", -1, 1, 0, std::make_shared<_FS_HANDLE>(), e.origin.size(), nullptr};
    EXPECT_EQ(w.Write(&wd), kErrFileWrite);
    EXPECT_EQ(w.FetchWrite(-1, "x", 1, nullptr), static_cast<int>(kErrFileWrite));
    std::unique_ptr<ICacheFile> converted(w.RebuildToReadonlyCache(nullptr, &e.config));
    EXPECT_THROW(WritableCache(plain + "/", "f", 0, nullptr, &e.config), AERROR);
    EXPECT_THROW(Cache(plain.c_str(), 0), AERROR);
    e.origin.set_mode(FakeOrigin::Mode::kNormal);
    ReadonlyCache q(e.dir.File(""), "q", e.origin.size(), &e.config);
    TestQueue queue(TestQueue::Mode::kRun);
    ReadAt(e, q, 0);
    EXPECT_TRUE(queue.WaitIdle());
    queue.set_mode(TestQueue::Mode::kHold);  // the block waits in the queue
    for (int i = 0; i < 4; ++i) ReadAt(e, q, 0);
    queue.CancelHeld();
    queue.set_mode(TestQueue::Mode::kDrop);
    ReadAt(e, q, 4 * kMiB, 30000);
    queue.set_mode(TestQueue::Mode::kHold);
    EXPECT_EQ(ReadAt(e, q, 6 * kMiB, -1, false, 3), kErrHandleClosed);
    EXPECT_EQ(ReadAt(e, q, 5 * kMiB + 5, 1), kErrRead);
    char timed_out[256];
    std::snprintf(timed_out, sizeof timed_out, "E [q] Read timed-out : %p, %lld, %d(%s)", buffer, 5 * kMiB + 5,
                  100, "last checked sector offset was 5242880 on offset 5242885, length 100 and reserved");
    const std::string h = "D [" + path + "] ", invalid = std::strerror(EINVAL);
    // ENOTDIR, 20, is written in decimal by one line and in hexadecimal by the other. The
    // manager, first in, goes last: its end comes as it goes, after these lines.
    return Lines{
        "I Cache initialized : " + cache.path() + ", Storage limit : " + limit + " bytes",
        "D Cache quota manager started", "D Cache configuration : 1, 2, 3, 4, 5, 0, 7, 8, 9, 10",
        "E Change cache storage limit requested but too small : Requested " + limit + " bytes",
        "I Storage limit changed : " + limit + " bytes", total, "I Create cache for a.bin:r",
        "I [a.bin] Read only cache initialized",
        "W Cache found for x/a.bin but read-only. Convert to writable cache forcefully.",
        "I SetMode : Read-only cache found. Change to writable cache.", "I [a.bin] Writable cache created",
        "E SetMode : Invalid cache mode", "I SetMode : Writable cache found. Change to read-only cache.",
        "I Rehash cache : x/a.bin to b.bin", "I Close cache : b.bin",
        "I [f] Read only cache opened(" + path + ")", "E [f] Read-ahead failed : 1048576, 1048576",
        "E [f:1] Read-ahead large block failed : 0, 8388608",
        "E [f] Fetch write failed : Cache offset was not aligned",
        "D [f] Reserved blocks 0 to 8388608(8388608 bytes)", "D [f] 16 blocks reserved",
        "I [f] Trying to fetch whole file(8388608 bytes).", "I [f] Read-ahead large block : 0, 8388608",
        "D [f] AsyncLargeFetch : 0, 8388608", "I [f] Read-ahead large : clear empty reserved block(s)",
        "I [f] Read-ahead large block done : 0, 8388608", h + "Cache handle closed",
        "W Cache file is deleted. Clear cache information. : " + path,
        "E Cache open has failed : " + blocked.GetCachePath() + "(20)",
        "D [r] [CheckReadAhead] Closest empty offset is within the quota!",
        "I [r] Read-ahead : 2097152, 1048576", "I [r] Read-ahead : clear empty reserved block(s)",
        "I [r] Read-ahead done : 2097152, 1048576",
        "D [r] Reserving offsets are not continuous. Clearing history.",
        "D [r] Fetch write : Sector 0 reserved and write on 1048576",
        "I [r] At GetLargestEmptyOffset, empty_sectors_ is empty.",
        "D [r] [CheckReadAhead] Closest empty offset exceeds the quota!",
        "D [r] ClearOldCache : 2 sector(s) will clear(total 4 sector(s))",
        "I [r] ClearOldCache : OK, 2097152 => 1048576", "I [r] ClearOldCache : OK, 1048576 => 0(Deleted)",
        "I [w] Read-ahead for writable cache : 1048576, 524288",
        "E [w] Read-ahead for writable cache failed : 2097152, 524288", "E [w] Write failed : " + invalid,
        "E [w] Fetch write failed : " + invalid, "I [w] Writable cache to read only cache",
        "I [w] Read only cache from writable cache created",
        "E Cache creation has failed : " + plain + "/f(14)", "E Cache path not found : " + plain + "/",
        "D [q] histsize: 2 but conf.rahit: 2, no read-ahead this time.",
        "D [q] Since  histsize: 3 while conf.rahit: 2ld, go read-ahead!",
        "I [q] Read-ahead from 524288, 1048576 bytes", "D [q] [CheckReadAhead] There is a busy read_ahead_!",
        "E [q] Read failed : Sector 4194304 not found on sector hash",
        "E [q] Read failed : Handle closed before return", timed_out, h + "Cache handle closed : force close",
        "I [f] Read only cache uninitialized", "I Uninitialize cache...", "D Cache quota manager stopped",
        "I Cache uninitialized"};
  }();
  ResetClockForTesting();
  const auto logged = e.log.Lines();
  auto at = logged.begin();
  for (const std::string& line : expected) {  // D 1, I 2, W 4, E 8
    const auto level = static_cast<LOGLEVEL>(1 << std::string("DIWE").find(line[0]));
    const auto found = std::find(at, logged.end(), std::make_pair(level, "[CACHE     ] " + line.substr(2)));
    if (found == logged.end()) ADD_FAILURE() << "no line, or not in order: " << line;
    else at = found;
  }
}

}  // namespace
