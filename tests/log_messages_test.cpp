// The log lines whose wording and level are fixed, one row each: what makes
// the library write it, and the whole line it must write.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cache/cache_manager.h"
#include "cache/cache_obj.h"
#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/timed_handle.h"
#include "cache/writable_cache.h"
#include "common/clock.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

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

// One read of `size` bytes at `offset` through `file`; a null origin reads
// what is cached.
unsigned int ReadAt(ICacheFile& file, long long offset, FakeOrigin* origin, long long timeout = 0,
                    std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>(), bool whole = false,
                    std::vector<char>* buffer = nullptr) {
  std::vector<char> own(100);
  std::vector<char>& bytes = buffer != nullptr ? *buffer : own;
  _READDATA rd{bytes.data(), offset, bytes.size(), 0, handle, origin != nullptr ? origin->size() : 0,
               origin, timeout, whole};
  return file.Read(&rd);
}

// Four reads at 0 with read-ahead after two: the fourth starts a block.
void ReadAheadRun(Env& env, ReadonlyCache& cache) {
  env.Configure([](_CACHECONFIG& c) {
    c.rahit = 2;
    c.ramax = 8 * kMiB;
  });
  for (int i = 0; i < 4; ++i) ReadAt(cache, 0, &env.origin);
}

// Sectors 0 and 1 cached 200 s ago, 4 and 5 now, then a pass for ages
// over 100 s: the old two go, the young two move down.
void EvictHalf(Env& env) {
  ReadonlyCache cache(env.Dir(), "old.bin", env.origin.size(), &env.config);
  ReadAt(cache, 0, &env.origin);
  AdvanceClockForTesting(std::chrono::seconds(200));
  ReadAt(cache, 2 * kMiB, &env.origin);
  env.Configure([](_CACHECONFIG& c) { c.clrused = c.clrunused = 100; });
  cache.ClearOldCache(false);
}

std::string Grouped(long long n) {
  std::ostringstream text;
  try {
    text.imbue(std::locale(""));
  } catch (const std::runtime_error&) {
  }
  text << n;
  return text.str();
}

// Polls a condition a background thread makes true; false after ~10 s.
bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 2000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return done();
}

struct Row {
  LOGLEVEL level;
  const char* message;
  // Makes the library log the message; returns the whole expected line.
  std::function<std::string(Env&)> trigger;
};

const Row kRows[] = {
    // Cache objects.
    {LOGLEVEL_INFO, "Create cache for %s:%c",
     [](Env& e) {
       CacheObj obj(e.Dir(), "a.bin", 'r', e.origin.size(), &e.origin, &e.config, "d/a.bin");
       return "[CACHE     ] Create cache for a.bin:r";
     }},
    {LOGLEVEL_ERROR, "%s : Invalid cache mode",
     [](Env& e) {
       CacheObj obj(e.Dir(), "a.bin", 'r', e.origin.size(), &e.origin, &e.config, "a.bin");
       EXPECT_EQ(obj.SetMode('x', e.origin.size(), &e.origin), kErrInvalidMode);
       return "[CACHE     ] SetMode : Invalid cache mode";
     }},
    {LOGLEVEL_INFO, "%s : Read-only cache found. Change to writable cache.",
     [](Env& e) {
       CacheObj obj(e.Dir(), "a.bin", 'r', e.origin.size(), &e.origin, &e.config, "a.bin");
       EXPECT_EQ(obj.SetMode('w', e.origin.size(), &e.origin), kOk);
       return "[CACHE     ] SetMode : Read-only cache found. Change to writable cache.";
     }},
    {LOGLEVEL_INFO, "%s : Writable cache found. Change to read-only cache.",
     [](Env& e) {
       CacheObj obj(e.Dir(), "a.bin", 'w', e.origin.size(), &e.origin, &e.config, "a.bin");
       EXPECT_EQ(obj.SetMode('r', e.origin.size(), &e.origin), kOk);
       return "[CACHE     ] SetMode : Writable cache found. Change to read-only cache.";
     }},
    // The sector cache file.
    {LOGLEVEL_INFO, "[%s] Read only cache initialized",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "a.bin", e.origin.size(), &e.config);
       return "[CACHE     ] [a.bin] Read only cache initialized";
     }},
    {LOGLEVEL_WARNING, "Cache file is deleted. Clear cache information. : %s",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "gone.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       AdvanceClockForTesting(TimedHandle::kIdleTimeout);
       EXPECT_TRUE(cache.CheckHandles());
       EXPECT_EQ(std::remove(cache.GetCachePath().c_str()), 0);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin), kOk);
       return "[CACHE     ] Cache file is deleted. Clear cache information. : " + cache.GetCachePath();
     }},
    {LOGLEVEL_ERROR, "Cache open has failed : %s(%d)",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "blocked.bin", e.origin.size(), &e.config);
       EXPECT_EQ(mkdir(cache.GetCachePath().c_str(), 0700), 0);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin), kErrRead);
       return "[CACHE     ] Cache open has failed : " + cache.GetCachePath() + "(" + std::to_string(EISDIR) + ")";
     }},
    // The read path.
    {LOGLEVEL_INFO, "[%s] Trying to fetch whole file(%lld bytes).",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "whole.bin", e.origin.size(), &e.config);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, 0, std::make_shared<_FS_HANDLE>(), true), kOk);
       return "[CACHE     ] [whole.bin] Trying to fetch whole file(8388608 bytes).";
     }},
    {LOGLEVEL_ERROR, "[%s] Read failed : Sector %lld not found on sector hash",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "dropped.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kDrop);
       EXPECT_EQ(ReadAt(cache, kMiB, &e.origin, 30000), kErrRead);
       return "[CACHE     ] [dropped.bin] Read failed : Sector 1048576 not found on sector hash";
     }},
    {LOGLEVEL_ERROR, "[%s] Read failed : Handle closed before return",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "closed.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kHold);
       auto handle = std::make_shared<_FS_HANDLE>();
       handle->state = 3;
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, -1, handle), kErrHandleClosed);
       return "[CACHE     ] [closed.bin] Read failed : Handle closed before return";
     }},
    {LOGLEVEL_ERROR, "[%s] Read timed-out : %p, %lld, %d(%s)",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "slow.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kHold);
       std::vector<char> buffer(100);
       EXPECT_EQ(ReadAt(cache, kHalf + 5, &e.origin, 1, std::make_shared<_FS_HANDLE>(), false, &buffer), kErrRead);
       char line[256];
       std::snprintf(line, sizeof line, "[CACHE     ] [slow.bin] Read timed-out : %p, %lld, %d(%s)",
                     static_cast<void*>(buffer.data()), kHalf + 5, 100,
                     "last checked sector offset was 524288 on offset 524293, length 100 and reserved");
       return std::string(line);
     }},
    {LOGLEVEL_ERROR, "[%s] Fetch write failed : Cache offset was not aligned",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "odd.bin", e.origin.size(), &e.config);
       std::vector<char> bytes(10);
       EXPECT_EQ(cache.FetchWrite(kMiB + 1, bytes.data(), 10, nullptr), static_cast<int>(kErrUnaligned));
       return "[CACHE     ] [odd.bin] Fetch write failed : Cache offset was not aligned";
     }},
    {LOGLEVEL_ERROR, "[%s] Read-ahead failed : %lld, %d",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "faulty.bin", e.origin.size(), &e.config);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       EXPECT_EQ(ReadAt(cache, kMiB, &e.origin), kErrRead);
       return "[CACHE     ] [faulty.bin] Read-ahead failed : 1048576, 1048576";
     }},
    {LOGLEVEL_ERROR, "[%s:%d] Read-ahead large block failed : %lld, %lld",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "faulty.bin", e.origin.size(), &e.config);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       EXPECT_EQ(ReadAt(cache, 0, &e.origin, 0, std::make_shared<_FS_HANDLE>(), true), kErrRead);
       return "[CACHE     ] [faulty.bin:1] Read-ahead large block failed : 0, 8388608";
     }},
    // Read-ahead.
    {LOGLEVEL_INFO, "[%s] Read-ahead from %lld, %lld bytes",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "ahead.bin", e.origin.size(), &e.config);
       ReadAheadRun(e, cache);
       return "[CACHE     ] [ahead.bin] Read-ahead from 524288, 1048576 bytes";
     }},
    {LOGLEVEL_DEBUG, "[%s] [%s] There is a busy read_ahead_!",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "busy.bin", e.origin.size(), &e.config);
       TestQueue queue(TestQueue::Mode::kRun);
       ReadAt(cache, 0, &e.origin);
       EXPECT_TRUE(queue.WaitIdle());
       queue.set_mode(TestQueue::Mode::kHold);
       ReadAheadRun(e, cache);  // the block waits in the queue
       ReadAt(cache, 0, &e.origin);
       queue.CancelHeld();
       return "[CACHE     ] [busy.bin] [CheckReadAhead] There is a busy read_ahead_!";
     }},
    {LOGLEVEL_DEBUG, "[%s] [%s] Closest empty offset exceeds the quota!",
     [](Env& e) {
       e.config.SetQuota(kHalf);
       ReadonlyCache cache(e.Dir(), "quota.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       ReadAt(cache, 0, &e.origin);
       return "[CACHE     ] [quota.bin] [CheckReadAhead] Closest empty offset exceeds the quota!";
     }},
    {LOGLEVEL_DEBUG, "[%s] Reserving offsets are not continuous. Clearing history.",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "back.bin", e.origin.size(), &e.config);
       ReadAt(cache, 2 * kMiB, &e.origin);
       ReadAt(cache, 0, &e.origin);
       return "[CACHE     ] [back.bin] Reserving offsets are not continuous. Clearing history.";
     }},
    {LOGLEVEL_INFO, "[%s] At %s, empty_sectors_ is empty.",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "run.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       EXPECT_EQ(cache.GetLargestEmptyOffset(0), kHalf);
       return "[CACHE     ] [run.bin] At GetLargestEmptyOffset, empty_sectors_ is empty.";
     }},
    // Eviction.
    {LOGLEVEL_DEBUG, "[%s] ClearOldCache : %d sector(s) will clear(total %d sector(s))",
     [](Env& e) {
       EvictHalf(e);
       return "[CACHE     ] [old.bin] ClearOldCache : 2 sector(s) will clear(total 4 sector(s))";
     }},
    {LOGLEVEL_INFO, "[%s] ClearOldCache : OK, %lld => %lld",
     [](Env& e) {
       EvictHalf(e);
       return "[CACHE     ] [old.bin] ClearOldCache : OK, 2097152 => 1048576";
     }},
    {LOGLEVEL_INFO, "[%s] ClearOldCache : OK, %lld => %lld(Deleted)",
     [](Env& e) {
       ReadonlyCache cache(e.Dir(), "all.bin", e.origin.size(), &e.config);
       ReadAt(cache, 0, &e.origin);
       AdvanceClockForTesting(std::chrono::seconds(1));
       e.Configure([](_CACHECONFIG& c) { c.clrused = c.clrunused = 0; });
       cache.ClearOldCache(false);
       return "[CACHE     ] [all.bin] ClearOldCache : OK, 1048576 => 0(Deleted)";
     }},
    // The writable cache.
    {LOGLEVEL_INFO, "[%s] Writable cache created",
     [](Env& e) {
       WritableCache cache(e.Dir(), "w.txt", 0, nullptr, &e.config);
       return "[CACHE     ] [w.txt] Writable cache created";
     }},
    {LOGLEVEL_ERROR, "Cache creation has failed : %s(%x)",
     [](Env& e) {
       e.dir.Write("plain", "x");
       EXPECT_THROW(WritableCache(e.dir.File("plain") + "/", "f.bin", 0, nullptr, &e.config), AERROR);
       char errno_hex[16];
       std::snprintf(errno_hex, sizeof errno_hex, "%x", static_cast<unsigned>(ENOTDIR));
       return "[CACHE     ] Cache creation has failed : " + e.dir.File("plain") + "/f.bin(" + errno_hex + ")";
     }},
    {LOGLEVEL_INFO, "[%s] Read-ahead for writable cache : %lld, %d",
     [](Env& e) {
       WritableCache cache(e.Dir(), "r.bin", e.origin.size(), &e.origin, &e.config);
       EXPECT_EQ(ReadAt(cache, kMiB + 10, &e.origin), kOk);
       return "[CACHE     ] [r.bin] Read-ahead for writable cache : 1048576, 524288";
     }},
    {LOGLEVEL_ERROR, "[%s] Read-ahead for writable cache failed : %lld, %d",
     [](Env& e) {
       WritableCache cache(e.Dir(), "r.bin", e.origin.size(), &e.origin, &e.config);
       e.origin.set_mode(FakeOrigin::Mode::kFail);
       ReadAt(cache, kMiB + 10, &e.origin);
       return "[CACHE     ] [r.bin] Read-ahead for writable cache failed : 1048576, 524288";
     }},
    {LOGLEVEL_ERROR, "[%s] Write failed : %s",
     [](Env& e) {
       WritableCache cache(e.Dir(), "w.bin", 0, nullptr, &e.config);
       std::vector<char> bytes(10);
       _WRITEDATA wd{bytes.data(), -1, bytes.size(), 0, std::make_shared<_FS_HANDLE>(), 0, nullptr};
       EXPECT_EQ(cache.Write(&wd), kErrFileWrite);
       return "[CACHE     ] [w.bin] Write failed : " + std::string(std::strerror(EINVAL));
     }},
    {LOGLEVEL_ERROR, "[%s] Fetch write failed : %s",
     [](Env& e) {
       WritableCache cache(e.Dir(), "w.bin", 0, nullptr, &e.config);
       std::vector<char> bytes(10);
       EXPECT_EQ(cache.FetchWrite(-1, bytes.data(), 10, nullptr), static_cast<int>(kErrFileWrite));
       return "[CACHE     ] [w.bin] Fetch write failed : " + std::string(std::strerror(EINVAL));
     }},
    {LOGLEVEL_DEBUG, "[%s] [%s] Inserted new sector %lld into sectors_.",
     [](Env& e) {
       WritableCache cache(e.Dir(), "big.bin", kMiB + 1, nullptr, &e.config);
       std::vector<char> bytes(kMiB + 1);
       _WRITEDATA wd{bytes.data(), 0, bytes.size(), 0, std::make_shared<_FS_HANDLE>(), kMiB + 1, nullptr};
       EXPECT_EQ(cache.Write(&wd), kOk);
       std::unique_ptr<ICacheFile> converted(cache.RebuildToReadonlyCache(nullptr, &e.config));
       return "[CACHE     ] [big.bin] [ReadonlyCache] Inserted new sector 1048576 into sectors_.";
     }},
    // The idle-closing stream handle.
    {LOGLEVEL_DEBUG, "[%s] Cache handle closed",
     [](Env& e) {
       TimedHandle handle(e.dir.File("h"));
       handle = std::fopen(e.dir.File("h").c_str(), "w");
       AdvanceClockForTesting(TimedHandle::kIdleTimeout);
       EXPECT_TRUE(handle.CloseIfExpired());
       return "[CACHE     ] [" + e.dir.File("h") + "] Cache handle closed";
     }},
    {LOGLEVEL_DEBUG, "[%s] Trying to close cache handle but there are references",
     [](Env& e) {
       TimedHandle handle(e.dir.File("h"));
       handle = std::fopen(e.dir.File("h").c_str(), "w");
       std::shared_ptr<FILE> held = handle.GetHandle();
       AdvanceClockForTesting(TimedHandle::kIdleTimeout);
       EXPECT_FALSE(handle.CloseIfExpired());
       return "[CACHE     ] [" + e.dir.File("h") + "] Trying to close cache handle but there are references";
     }},
    {LOGLEVEL_DEBUG, "[%s] Cache handle closed : force close",
     [](Env& e) {
       TimedHandle handle(e.dir.File("h"));
       handle = std::fopen(e.dir.File("h").c_str(), "w");
       handle.Close();
       return "[CACHE     ] [" + e.dir.File("h") + "] Cache handle closed : force close";
     }},
    {LOGLEVEL_DEBUG, "[%s] Trying to close cache handle but there are references : force close",
     [](Env& e) {
       TimedHandle handle(e.dir.File("h"));
       handle = std::fopen(e.dir.File("h").c_str(), "w");
       std::shared_ptr<FILE> held = handle.GetHandle();
       handle.Close();
       return "[CACHE     ] [" + e.dir.File("h") +
              "] Trying to close cache handle but there are references : force close";
     }},
    // The manager.
    {LOGLEVEL_ERROR, "Cache path not found : %s",
     [](Env& e) {
       e.dir.Write("file", "x");
       EXPECT_THROW(Cache(e.dir.File("file").c_str(), 0), AERROR);
       return "[CACHE     ] Cache path not found : " + e.dir.File("file") + "/";
     }},
    {LOGLEVEL_INFO, "Cache initialized : %s, Storage limit : %s bytes",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       return "[CACHE     ] Cache initialized : " + cache.path() + ", Storage limit : " +
              Grouped(static_cast<long long>(cache.GetLimit())) + " bytes";
     }},
    {LOGLEVEL_DEBUG, "Cache configuration : %u, %u, %u, %u, %u, %u, %u, %u, %u, %u",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":1,"min":2,"max":3},"read":{"timeout":4,
           "maxfetch":5},"clear":{"period":6,"usedblock":7,"unusedblock":8,"over":{"usedblock":9,
           "unusedblock":10}}}})"), kOk);
       return "[CACHE     ] Cache configuration : 1, 2, 3, 4, 5, 6, 7, 8, 9, 10";
     }},
    {LOGLEVEL_INFO, "Storage limit changed : %s bytes",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       EXPECT_EQ(cache.SetLimit(64 * kMiB), kOk);
       return "[CACHE     ] Storage limit changed : " + Grouped(static_cast<long long>(cache.GetLimit())) +
              " bytes";
     }},
    {LOGLEVEL_ERROR, "Change cache storage limit requested but too small : Requested %s bytes",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       EXPECT_EQ(cache.SetLimit(64 * kMiB - 1), kErrLimitTooSmall);
       return "[CACHE     ] Change cache storage limit requested but too small : Requested " +
              Grouped(static_cast<long long>(cache.GetLimit())) + " bytes";
     }},
    {LOGLEVEL_WARNING, "Cache found for %s but read-only. Convert to writable cache forcefully.",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       cache.Open("x/a.bin", 'r', e.origin.size(), &e.origin);
       cache.Open("x/a.bin", 'w', e.origin.size(), &e.origin);
       return "[CACHE     ] Cache found for x/a.bin but read-only. Convert to writable cache forcefully.";
     }},
    {LOGLEVEL_INFO, "Close cache : %s",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       cache.Open("x/b.bin", 'r', e.origin.size(), &e.origin);
       EXPECT_EQ(cache.Close("x/b.bin"), kOk);
       return "[CACHE     ] Close cache : x/b.bin";
     }},
    {LOGLEVEL_INFO, "Rehash cache : %s to %s",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       cache.Open("c.bin", 'r', e.origin.size(), &e.origin);
       EXPECT_EQ(cache.Rehash("c.bin", "d.bin", "d.bin"), kOk);
       return "[CACHE     ] Rehash cache : c.bin to d.bin";
     }},
    {LOGLEVEL_DEBUG, "[CACHE] [%s] Total cache : %lld(limits : %lld)",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       const std::string line = "[CACHE     ] [CACHE] [" + cache.path() + "] Total cache : 0(limits : " +
                                std::to_string(cache.GetLimit()) + ")";
       EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"clear":{"period":0}}})"), kOk);
       EXPECT_TRUE(WaitFor([&] { return e.log.Count(line) > 0; }));
       return line;
     }},
    {LOGLEVEL_DEBUG, "Cache quota manager started",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       return "[CACHE     ] Cache quota manager started";
     }},
    {LOGLEVEL_DEBUG, "Cache quota manager stopped",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       return "[CACHE     ] Cache quota manager stopped";
     }},
    {LOGLEVEL_INFO, "Uninitialize cache...",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       return "[CACHE     ] Uninitialize cache...";
     }},
    {LOGLEVEL_INFO, "Cache uninitialized",
     [](Env& e) {
       Cache cache(e.dir.path().c_str(), 0);
       return "[CACHE     ] Cache uninitialized";
     }},
};

TEST(LogMessages, EachFixedMessageIsWrittenWordForWordAtItsLevel) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.message);
    Cache_UnbindAsyncQ();
    std::string expected;
    std::vector<std::pair<LOGLEVEL, std::string>> lines;
    {
      Env env;
      expected = row.trigger(env);
      lines = env.log.Lines();
    }
    ResetClockForTesting();
    EXPECT_NE(std::find(lines.begin(), lines.end(), std::make_pair(row.level, expected)), lines.end())
        << "no line at level " << row.level << ": " << expected;
  }
}

TEST(LogMessages, StoppingAManagerEndsItsThreadBeforeItIsGone) {
  RecordingLog log;
  TempDir dir;
  { Cache cache(dir.path().c_str(), 0); }
  const int stopped = log.IndexOf("[CACHE     ] Cache quota manager stopped");
  EXPECT_LT(log.IndexOf("[CACHE     ] Uninitialize cache..."), stopped);
  EXPECT_LT(stopped, log.IndexOf("[CACHE     ] Cache uninitialized"));
}

class CountingWork : public IAsyncObj {
 public:
  void Process(void* param) override { processed.push_back(param); }
  void Canceled(void* param) override { canceled.push_back(param); }
  std::vector<void*> processed;
  std::vector<void*> canceled;
};

class HoldingQueue : public IAsyncQueue {
 public:
  void Enqueue(IAsyncObj* work, void* param) override { held.emplace_back(work, param); }
  std::vector<std::pair<IAsyncObj*, void*>> held;
};

TEST(LogMessages, LinesReachTheBoundLoggerFormattedWithTheirLevel) {
  {
    RecordingLog log;
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] %lld/%d", "a.txt", 5LL, 7);
    EXPECT_FALSE(Cache_BindLogger(nullptr));  // keeps the binding
    KORV_LOG(LOGLEVEL_DEBUG, "still bound");
    EXPECT_EQ(log.Lines(), (std::vector<std::pair<LOGLEVEL, std::string>>{
                               {LOGLEVEL_ERROR, "[CACHE     ] [a.txt] 5/7"}, {LOGLEVEL_DEBUG, "still bound"}}));
  }
  // The recording logger unbound itself: nothing is written and nothing fails.
  EXPECT_EQ(CurrentLogger(), nullptr);
  KORV_LOG(LOGLEVEL_INFO, "nobody listens");
  __LOG__A(nullptr, LOGLEVEL_INFO, "explicitly nobody");
}

TEST(LogMessages, WorkRunsInlineWithoutAQueueAndIsHandedToABoundOne) {
  Cache_UnbindAsyncQ();
  CountingWork work;
  int context = 0;
  QueueAsync(&work, nullptr);  // a null param is replaced by the marker 1
  QueueAsync(&work, &context);
  EXPECT_EQ(work.processed, (std::vector<void*>{reinterpret_cast<void*>(uintptr_t{1}), &context}));

  HoldingQueue queue;
  ASSERT_TRUE(Cache_BindAsyncQ(&queue));
  EXPECT_FALSE(Cache_BindAsyncQ(nullptr));  // keeps `queue`
  QueueAsync(&work, nullptr);
  EXPECT_EQ(queue.held, (std::vector<std::pair<IAsyncObj*, void*>>{{&work, nullptr}}));
  Cache_UnbindAsyncQ();
  QueueAsync(&work, nullptr);
  EXPECT_EQ(queue.held.size(), 1u);
  EXPECT_EQ(work.processed.size(), 3u);
  EXPECT_TRUE(work.canceled.empty());
}

}  // namespace
