// The background thread of one cache directory: closes streams that have
// been idle long enough and keeps the directory within its limit by making
// the cache files drop old data.
//
// No lock of the manager or of a cache object is held while it measures,
// clears a file or waits: clients wait at most for a table copy or for the
// one file being cleared.
#pragma once

#include <condition_variable>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/thread_annotations.h"
#include "korvcache.h"

class CacheObj;

// What the thread needs of its manager.
class QuotaDirectory {
 public:
  // The open files, copied out of the manager's table.
  virtual std::vector<std::shared_ptr<CacheObj>> FilesToTend() = 0;
  virtual long long Limit() = 0;
  // What the files report storing (see StorageMeter).
  virtual unsigned long long StoredBytes() = 0;
  // Milliseconds between clearing passes.
  virtual long long ClearPeriodMs() = 0;
  // Whether a pass that leaves the directory over its limit goes on to drop
  // the least recently read sectors of all files until it is under.
  virtual bool HardLimit() = 0;
  // The directory, with a trailing "/".
  virtual const std::string& path() const = 0;

 protected:
  ~QuotaDirectory() = default;
};

class QuotaThread {
 public:
  // Starts the thread. `directory` must outlive this object. Throws
  // std::system_error when the thread cannot be started.
  explicit QuotaThread(QuotaDirectory* directory);
  // Stops the thread at once, also in the middle of a wait, and joins it.
  ~QuotaThread();

  QuotaThread(const QuotaThread&) = delete;
  QuotaThread& operator=(const QuotaThread&) = delete;

  // One full pass on the calling thread, whatever the timers say: idle
  // streams closed, the directory measured, every file cleared (over the
  // limit, each dropping data until the directory is under it). For tests;
  // safe beside the thread, as each file serializes its own clearing.
  void RunPassNow();
  // Asks for a clearing pass as soon as the thread can run one; the timers
  // of the periodic passes stay as they are.
  void RequestPass();

  // Bytes the entries of the directory occupy on disk (as du counts them);
  // 0 when it is unreadable.
  static long long MeasureDirectory(const std::string& path);

 private:
  void Run();
  // Returns the number of streams closed.
  int CloseIdleStreams();
  void ClearFiles(long long total);
  // With `used` bytes over the limit, drops the least recently read sectors
  // until a quarter of the limit is free. True when there was something to
  // drop (or nothing needed).
  bool HoldTheLimit(const std::vector<std::shared_ptr<CacheObj>>& files, long long used);
  // Drops the least recently read settled sectors across `files`, about
  // `bytes` of them; false when there are none.
  bool DropLeastRecentlyRead(const std::vector<std::shared_ptr<CacheObj>>& files, long long bytes);

  QuotaDirectory* const directory_;
  Mutex lock_;
  std::condition_variable_any wake_;
  bool stopping_ GUARDED_BY(lock_) = false;
  bool pass_requested_ GUARDED_BY(lock_) = false;
  std::thread thread_;
};
