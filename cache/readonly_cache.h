// The read-only form of a cache file: a sparse local copy of one remote file.
//
// The cache file is a headerless run of 512 KiB slots. Each cached sector of
// the origin has one slot, which holds only the bytes that arrived (the rest
// of a short sector's slot is a hole, or the file ends there); slots are
// handed out in fetch order, so which origin sector lies where is known only
// from the in-memory index (SectorIndex). An instance starts empty with a
// fresh UUID-named file, or with a writable cache's file it takes over, or
// with a file an earlier run kept (see kept_files.h), and deletes it when
// closed, unless it is kept for the next run (Keep).
//
// The parts: the index of sectors and free slots (SectorIndex), the
// read-ahead decision (ReadAheadPolicy), the compaction plan of an eviction
// pass (compaction_plan.h), all pure; this class keeps the slot file, its
// locks, and the fetch tasks (which reach it through FetchTarget).
//
// Locks, outermost first: index_lock_, then file_lock_, then the file
// handle's own lock. index_lock_ guards the index and the read-ahead policy; file_lock_ guards every seek and
// its transfer on the one shared stream.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "cache/fetch_target.h"
#include "cache/kept_files.h"
#include "cache/read_ahead_policy.h"
#include "cache/sector_index.h"
#include "cache/storage_meter.h"
#include "cache/timed_handle.h"
#include "common/thread_annotations.h"
#include "common/clock.h"
#include "korvcache.h"

class WritableCache;

class ReadonlyCache : public ICacheFile, public IFetchCallback, public FetchTarget {
 public:
  // Nothing is created on disk until the first read or fetch write.
  // `cache_dir` must end with a separator: the file name is appended to it.
  // For a `name` of the form a:b:c the log tag is b. `config` must outlive
  // the cache.
  ReadonlyCache(std::string cache_dir, std::string name, long long origin_size,
                ICacheConfig* config);
  // Takes over the open local file of `source` without copying a byte: every
  // sector of its physical length becomes present at its own offset. The
  // source is left without a stream (its Close and destructor then keep the
  // file); the file is this cache's from now on, reopened after an idle
  // close and deleted by Close(true).
  // REQUIRES: nothing else runs on `source` meanwhile.
  ReadonlyCache(WritableCache* source, ICacheConfig* config);
  // Takes over a file an earlier run kept, with the sectors of its index.
  // They are served only once checked against their checksums (a sector
  // that fails is dropped, and fetched again when read). The index stays on
  // disk until this cache first writes to the file.
  // `name` gives the log tag, as for a new cache.
  ReadonlyCache(std::string cache_dir, const std::string& name, FoundFile found, ICacheConfig* config);
  // Waits for every fetch task of this cache, then deletes its file.
  ~ReadonlyCache() override;

  ReadonlyCache(const ReadonlyCache&) = delete;
  ReadonlyCache& operator=(const ReadonlyCache&) = delete;

  // Serves the request end to end: queues fetches for missing sectors (at
  // least 1 MiB from the offset), waits for them, copies the bytes out. The
  // wait wakes as soon as the index changes and at least every 10 ms, to
  // check for a closed handle and the time-out.
  // With a fetcher the read ends at the request's file_size: nothing past it
  // is waited for or served, so a request reaching past it is served short.
  // Without a fetcher it serves only what is cached, possibly 0 bytes.
  // Returns: kOk, kErrInvalidArgument, kErrRead (no stream, sector missing,
  // time-out), kErrHandleClosed, kErrFileRead.
  // Locks and unlocks index_lock_ around its polls: beyond what the analysis
  // can follow.
  unsigned int Read(_READDATA* request) override NO_THREAD_SAFETY_ANALYSIS;
  // Returns: kErrReadOnly, always.
  unsigned int Write(_WRITEDATA* request) override;
  // Marks the missing sectors of the range as on their way.
  // Returns: kOk, kErrUnaligned, kNothingReserved.
  unsigned int Reserve(long long offset, long long length) override;
  // Forgets the sectors of the range that are still reserved. Returns kOk.
  unsigned int ClearReserved(long long offset, long long length) override;
  // Waits for running fetch tasks; with `remove` deletes the file and the
  // index. Returns: kOk, kErrNotOpen (remove requested but the stream had
  // been closed for idleness; the file is deleted all the same).
  unsigned int Close(bool remove) override;
  // Returns: kErrReadOnly, always.
  unsigned int Truncate(long long size) override;
  // Waits for running fetch tasks, then keeps the file for the next run:
  // its bytes are synced and its index (`name`, `version`, the origin's size
  // and every settled sector) written beside it. Closing and destroying the
  // cache afterwards leave both; a later fetch write removes the index
  // again. False when there is nothing to keep or the index could not be
  // written: the caller then closes with removal.
  bool Keep(const std::string& name, const std::string& version);
  // Writes the index as Keep does, but the cache stays open and in use (the
  // next write removes the index again). False when nothing was written.
  bool WriteIndex(const std::string& name, const std::string& version);
  // Whether the sectors are still those of an origin of `origin_size` bytes
  // at the version the caller knows (`same_version`); if not they are all
  // dropped and the origin's size becomes `origin_size`.
  void ReuseFor(long long origin_size, bool same_version);
  bool IsReadonly() override { return true; }
  ICacheFile* RebuildToWritableCache(IFetch*, ICacheConfig*) override { return nullptr; }
  ICacheFile* RebuildToReadonlyCache(IFetch*, ICacheConfig*) override { return nullptr; }
  // Drops sectors not read for long enough, compacts and trims the file,
  // deletes it when empty.
  void ClearOldCache(bool over_quota) override;
  // When each settled sector was last read, and its size: what a pass over
  // the limit weighs across files.
  std::vector<SectorAge> SectorAges();
  // Drops, as ClearOldCache does, every settled sector last read at or
  // before `cutoff`.
  void DropReadBefore(SteadyTime cutoff);
  // The cache file's physical length; 0 when it cannot be opened.
  long long GetFileSize() override;
  // GetFileSize() while the file exists; 0 (without reopening) once deleted.
  long long GetFileSizeForQuota() override;
  // How far the run of indexed sectors reaches from `offset`: the sector of
  // `offset` if it is not indexed, else the last sector of the unbroken run
  // after it, or -1 when that run reaches beyond offset + ramax.
  long long GetLargestEmptyOffset(long long offset) override;
  unsigned int FillEmptySectors(IFetch*) override { return kOk; }
  // Replaces the log tag only; the cache file keeps its name.
  void ChangeFileName(std::string new_name) override;
  // Closes the stream if it has been idle long enough; true when it did.
  bool CheckHandles() override;

  // Stores fetched bytes. REQUIRES: index_lock_ held.
  // Returns: kOk, kErrRead (no stream), kErrUnaligned, kErrFileWrite.
  virtual int FetchWriteNoLock(long long offset, const char* data, long length, long* written) REQUIRES(index_lock_);
  // Takes index_lock_ and calls FetchWriteNoLock.
  int FetchWrite(long long offset, const char* data, long length, long* written) override;
  // The current settings of the owning manager.
  _CACHECONFIG GetConfig() override;
  // Where a new slot is appended: the file's physical length.
  virtual long long GetFileOffset();

  // A reference to the open stream, opening (or, when it vanished, recreating)
  // the file as needed; null when that fails.
  std::shared_ptr<FILE> GetHandle() { return OpenStream(false); }
  // The log tag. A copy: ChangeFileName may replace it on another thread.
  std::string GetFileName() const override;
  const std::string& GetCachePath() const { return cache_path_; }

  // What the fetch tasks call (see FetchTarget).
  // The lock `lock` says the caller holds is taken here otherwise.
  int StoreFetched(long long offset, const char* data, long length, long* written, IndexLock lock) override
      NO_THREAD_SAFETY_ANALYSIS;
  void ForgetReserved(long long offset, long long length, IndexLock lock) override NO_THREAD_SAFETY_ANALYSIS;
  void WaitForRoom() override;
  void TaskStarted() override { read_ahead_count_.fetch_add(1, std::memory_order_relaxed); }
  void TaskEnded() override;
  void LargeFetchEnded(const IAsyncObj* task) override;

 private:
  // Queue state of one read.
  enum class Queued { kNothing, kReadAhead, kFetch };

  // REQUIRES: index_lock_ held (for all below).
  int QueueEmptySectors(long long start, long long end, IFetch* fetch, std::shared_ptr<_FS_HANDLE> handle)
      REQUIRES(index_lock_);
  void QueueEmptySectors(std::deque<long long>& offsets, IFetch* fetch,
                         std::shared_ptr<_FS_HANDLE> handle) REQUIRES(index_lock_);
  unsigned int ReserveNoLock(long long offset, long long length) REQUIRES(index_lock_);
  void ClearReservedNoLock(long long offset, long long length) REQUIRES(index_lock_);
  int CheckReadAhead(_READDATA* request) REQUIRES(index_lock_);
  // A policy whose ladder follows the current settings of `config`.
  static ReadAheadPolicy ReadAheadFor(ICacheConfig* config);
  long long LargestEmptyOffsetNoLock(long long offset) REQUIRES(index_lock_);
  void ClearIndexNoLock() REQUIRES(index_lock_);
  // Waits until no fetch task refers to this cache any more.
  void WaitForTasks();
  // Before the first write to a kept file: its index goes, so that a run
  // that ends without keeping the file leaves it untrusted.
  void ForgetKeptIndexNoLock() REQUIRES(index_lock_);
  // Checks the kept sectors of [start, end) not yet checked against their
  // checksums; those that fail are dropped.
  void VerifyKeptNoLock(long long start, long long end, FILE* stream) REQUIRES(index_lock_);
  bool WriteIndexNoLock(const std::string& name, const std::string& version) REQUIRES(index_lock_);
  // After the file vanished: forgets every settled sector and every slot.
  void DropLostSlotsNoLock() REQUIRES(index_lock_);
  // Drops `selected`, compacts and trims the file, deletes it when empty.
  void DropSectorsNoLock(const std::vector<long long>& selected) REQUIRES(index_lock_);
  // Reports the file's length to the meter.
  void ReportStoredNoLock() REQUIRES(index_lock_);
  // Wakes the readers waiting for sectors: called after every change of the
  // index that can end a wait (a sector filled, a reservation dropped, an
  // entry removed).
  void IndexChangedNoLock() REQUIRES(index_lock_);

  // Opens the stream on demand. When the file has vanished behind the
  // cache's back the index is dropped first, taking index_lock_ unless the
  // caller says it holds it.
  // Takes index_lock_ unless `index_locked` says the caller holds it: beyond
  // what the analysis can follow.
  std::shared_ptr<FILE> OpenStream(bool index_locked) NO_THREAD_SAFETY_ANALYSIS;
  // Physical length of the file; takes file_lock_.
  long long FileLength(bool index_locked) NO_THREAD_SAFETY_ANALYSIS;
  // Copies the range out. REQUIRES: index_lock_ held.
  unsigned int CopyOut(_READDATA* request, const std::shared_ptr<FILE>& stream, long long start,
                       bool fetching) REQUIRES(index_lock_);

  // Large read-aheads queued or running for this file: at most two, the
  // second started only once the reader has passed the middle of the first
  // (see CheckReadAhead). Raised under index_lock_, lowered by the finishing
  // task without it.
  std::atomic<int> large_fetches_{0};
  // The middle of the latest large read-ahead block.
  long long read_ahead_middle_ GUARDED_BY(index_lock_) = 0;
  // Queued or running fetch tasks that refer to this cache.
  std::atomic<int64_t> read_ahead_count_{0};
  // Written by Close before it takes index_lock_.
  std::atomic<bool> delete_on_close_{true};
  // Set once this cache has opened its file; a missing file before that is
  // not a lost one.
  std::atomic<bool> file_created_{false};

  Mutex index_lock_;
  Mutex file_lock_ ACQUIRED_AFTER(index_lock_);
  // Readers sleep on index_changed_; index_generation_ counts the changes,
  // so that one made between a reader's check and its wait is not missed.
  std::condition_variable_any index_changed_;
  uint64_t index_generation_ GUARDED_BY(index_lock_) = 0;
  // Close sleeps on tasks_done_ until read_ahead_count_ is 0. The last
  // thing a task does to this cache is to notify under tasks_lock_, which
  // Close takes before it returns.
  Mutex tasks_lock_ ACQUIRED_AFTER(file_lock_);
  std::condition_variable_any tasks_done_;

  const std::string cache_dir_;
  mutable Mutex name_lock_;
  std::string file_name_ GUARDED_BY(name_lock_);
  std::string cache_path_;
  TimedHandle handle_;

  // State below is protected by index_lock_.
  SectorIndex index_ GUARDED_BY(index_lock_);
  // The index on disk that describes the file, while there is one.
  std::string kept_index_path_ GUARDED_BY(index_lock_);
  // Set by Keep: the file now belongs to the next run.
  bool kept_ GUARDED_BY(index_lock_) = false;
  long long origin_size_ GUARDED_BY(index_lock_);

  ICacheConfig* const config_;
  // The read history and the block-size ladder; protected by index_lock_.
  ReadAheadPolicy read_ahead_policy_ GUARDED_BY(index_lock_);
  // The file's length as last reported to the manager's meter.
  StoredBytes stored_ GUARDED_BY(index_lock_);
  StorageMeter* const meter_;
};
