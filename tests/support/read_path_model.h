// Drives one sector cache (ReadonlyCache) through a script of operations
// against an origin whose byte at offset x is FakeOrigin::ByteAt(x), and
// checks what every step gives back: a read that returns kOk serves only the
// origin's bytes, nothing past its size or the end of the file; a fetching
// read whose fetches all worked, with no queue bound and no reservation or
// short sector the script made in its way, serves every byte up to the end of
// the file. The read-path tests also give each step its expected outcome; the
// read-path fuzz target relies on those checks alone.
#pragma once

#include <climits>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cache/readonly_cache.h"
#include "support/fake_config.h"
#include "support/faulty_file_io.h"
#include "support/test_queue.h"

class ReadPathModel : private IFetch {
 public:
  // Each step's operands (a, b) and expectations (want, served):
  //  - reads: a offset, b size; want the status, served the bytes transferred. kCachedRead has no
  //    fetcher, kClosed* a handle the client has closed;
  //  - kFetchWrite: the b origin bytes at a (at most to the end of the file); want the result. kReserve, kClearReserved: a offset, b length; want the status;
  //  - kClock: a ms more on the clock; kCheckHandles the same, want 1 when the idle stream was closed;
  //  - kEvict*: want the cache file's length after the pass, as kLength; kClose*: want the status;
  //  - kReopen: a new cache object for the same origin file; kDeleteFile behind the cache's back;
  //    kBlockFile: a directory takes the cache file's name, if it is free; kBreakStream: writes to
  //    cache files fail (EIO) until kMendStream;
  //  - want: kFileSize GetFileSize(), kQuotaSize GetFileSizeForQuota(), kLength the cache file's length
  //    on disk (-1 when there is none), kLargestEmpty GetLargestEmptyOffset(a), kHeld the tasks held;
  //  - kSlot: slot a holds `want` bytes of the origin from offset b, then zeros or the file's end;
  //    kSlotStart starts so;
  //  - kQueue: a QueueMode; kRunHeld waits until the queue is idle;
  //  - kOrigin: a OriginMode (or kMixed + a pattern byte), b sectors per delivery (0: 1);
  //  - kTimeout: a the time-out of later fetching reads, ms; kSet: a Setting, b its value.
  // The fuzz target's operation byte picks one of those up to kSet.
  enum class Op {
    kRead, kCachedRead, kWholeFileRead, kClosedRead, kClosedWholeFileRead, kFetchWrite, kReserve, kClearReserved,
    kClock, kEvict, kEvictOverQuota, kCheckHandles, kClose, kCloseRemove, kReopen, kDeleteFile, kBlockFile,
    kFileSize, kQuotaSize, kLength, kLargestEmpty, kOrigin, kTimeout, kSet, kBreakStream, kMendStream, kSlot,
    kSlotStart, kQueue, kRunHeld, kCancelHeld, kHeld,
  };
  enum Setting { kRaHit, kRaMin, kRaMax, kReadTimeout, kReadFetchMax, kClrUsed, kClrUnused, kClrOverUsed,
                 kClrOverUnused, kQuota };
  enum QueueMode { kInline, kRun, kHold, kDrop };
  // kShort delivers whole sectors up to about half the range and returns 0;
  // kPartialThenFail delivers half of the first piece, which settles its
  // sector short, and returns 1. kMixed + p gives each call a mode from p.
  enum OriginMode { kNormal, kFail, kShort, kNothing, kExtra, kPartialThenFail, kShortThenFail, kMixed = 256 };
  static constexpr long long kAny = LLONG_MIN;
  using Range = std::pair<long long, long>;

  struct Step {
    Op op;
    long long a = 0;
    long long b = 0;
    long long want = kAny;
    long long served = kAny;
    std::vector<Range> fetched = {};  // checked by Run only: every origin request of the step
  };

  // `fail` gets every failed check. The cache object is made at the first
  // step that needs it, so leading kSet steps shape its read-ahead ladder.
  ReadPathModel(std::string cache_dir, long long file_size, const _CACHECONFIG& config,
                std::function<void(const std::string&)> fail);
  ReadPathModel(const ReadPathModel&) = delete;
  ReadPathModel& operator=(const ReadPathModel&) = delete;

  // Applies each step and checks its expectations, its fetched list included.
  void Run(const std::vector<Step>& script);
  // Applies one step and checks the expectations it gives. A fetching read
  // over a reservation the steps made (which would never settle) reads only
  // what is cached instead.
  void Apply(const Step& step) { Do(step, false); }

 private:
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override;
  std::string HandleInfo(_FS_HANDLE*) override { return "model"; }
  ReadonlyCache& cache();
  void Do(const Step& step, bool strict);
  void Read(const Step& step, bool strict);
  void FetchWrite(const Step& step);
  void Expect(bool ok, const std::string& what);
  void Expect(long long want, long long got, const char* what);
  long long Length();

  const std::string dir_;
  const long long file_size_;
  const std::function<void(const std::string&)> fail_;
  std::string step_;  // the step being applied, for messages
  FakeConfig config_;
  // The origin writes the state below under lock_, on queue workers too; the
  // steps read it while the queue is idle.
  std::mutex lock_;
  int origin_mode_ = kNormal;
  long long piece_sectors_ = 1;
  int calls_ = 0;  // origin calls since the last kOrigin step
  bool abnormal_ = false;  // an origin call misbehaved or a delivery was refused since the last read began
  std::vector<Range> requests_;
  // Sectors the script may have left reserved or short: over-approximations,
  // used only to decide which reads must be complete.
  std::set<long long> reserved_;
  std::set<long long> short_;
  std::unique_ptr<ReadonlyCache> cache_;
  std::unique_ptr<TestQueue> queue_;  // declared after the cache: goes first
  long long timeout_ = 0;
  std::unique_ptr<FaultyFileIo> broken_;  // kBreakStream
  std::vector<char> buffer_;
};

// A named script for one origin file, for the table tests.
struct ReadPathScript {
  const char* name;
  long long file_size;
  std::vector<ReadPathModel::Step> steps;
};

// Runs each script on a fresh cache in a fresh directory, starting from
// `config`, with no queue bound and the clock reset afterwards; every failed
// check is a test failure naming the script and the step.
void RunReadPathScripts(const std::vector<ReadPathScript>& scripts, const _CACHECONFIG& config);
