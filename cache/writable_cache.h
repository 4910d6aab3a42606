// The writable form of a cache file: the whole remote file as one plain local
// file whose byte offsets are the file's own, so it can be written anywhere,
// truncated and read back.
//
// The local file starts empty and every 512 KiB sector of the declared size
// is a hole. A hole is fetched from the origin, synchronously on the calling
// thread, only when a read touches it, when a write covers part of it, or
// when FillEmptySectors asks for all of them. Destroying the object deletes
// the local file; to keep the contents, convert it first with
// RebuildToReadonlyCache.
//
// Thread safety: any thread may call in. Locks, outermost first: index_lock_
// (hole bookkeeping, the logical size, and every fetch: origin deliveries
// arrive through FetchWrite while the fetching thread holds it), then
// file_lock_ (each seek and its transfer on the one stream), then name_lock_
// (the log tag only).
#pragma once

#include <atomic>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "cache/storage_meter.h"
#include "common/thread_annotations.h"
#include "korvcache.h"

class WritableCache : public ICacheFile, public IFetchCallback {
 public:
  // Creates the local file cache_dir + name with mode "w+". `cache_dir` must
  // end with a separator. For a `name` of the form a:b:c the file is named b.
  // A name already taken by a file or directory is numbered before its last
  // dot: a.txt, a[0].txt, a[1].txt, ...; a name without a dot gets the number
  // in front: noext, [0].noext, ... `fetch` is not kept: every request brings
  // its own. `config` is not owned and must outlive the cache.
  // Throws AERROR kErrCreateFile when the file cannot be created.
  WritableCache(std::string cache_dir, std::string name, long long size, IFetch* fetch,
                ICacheConfig* config);
  // Close(true): the local file is deleted unless its stream was handed over.
  ~WritableCache() override;

  WritableCache(const WritableCache&) = delete;
  WritableCache& operator=(const WritableCache&) = delete;

  // Fetches every hole the range touches (with the request's fetcher, when it
  // has one and the offset is below the logical size), then reads the local
  // file. A short count at the end of the local file is success. A hole that
  // could not be fetched fails the read: the local file has only zeros there.
  // Returns: kOk, kErrInvalidArgument (no request, no buffer), kErrRead (no
  // stream, read failed, a hole not fetched), kErrFileRead (seek failed,
  // negative range).
  unsigned int Read(_READDATA* request) override;
  // Fetches the holes at the write's head sector and at the sector of its end
  // offset unless the write covers them whole, then writes; also when the
  // write starts at or past the logical size inside a hole, whose bytes
  // before the write are still the origin's. Nothing is fetched without a
  // fetcher or for a write of the whole file (offset 0 and end equal to the
  // request's file_size). Every sector the write touches stops being a hole;
  // the logical size grows to the physical length. The whole call holds
  // index_lock_, so no read fetches a hole between the write and its erasing.
  // Returns: kOk, kErrInvalidArgument, kErrRead (the origin did not deliver
  // a hole the write needs: nothing is written), kErrFileWrite (no stream,
  // seek or write failed, a fetched hole could not be stored, negative
  // range).
  unsigned int Write(_WRITEDATA* request) override;
  // No reservations in a whole-file cache. Return kOk.
  unsigned int Reserve(long long, long long) override { return kOk; }
  unsigned int ClearReserved(long long, long long) override { return kOk; }
  // Records `remove`; with it, closes the stream, forgets the holes and
  // deletes the local file. Close(false) leaves everything open and usable.
  // Returns: kOk, kErrNotOpen (remove requested but no stream is held).
  unsigned int Close(bool remove) override;
  // Cuts or extends the local file. Shrinking forgets the holes after the
  // sector holding the new end; growing adds zeros that are not holes.
  // Returns: kOk, kErrFileWrite.
  unsigned int Truncate(long long size) override;
  bool IsReadonly() override { return false; }
  // A writable cache is never rebuilt into another one. Returns null.
  ICacheFile* RebuildToWritableCache(IFetch*, ICacheConfig*) override { return nullptr; }
  // A new ReadonlyCache (owned by the caller) that takes over the open local
  // file as it is, holes included; this object is left without a stream and
  // remains the caller's to destroy. The fetcher is not used.
  // REQUIRES: the stream is still held; nothing else runs on this object.
  ICacheFile* RebuildToReadonlyCache(IFetch* fetch, ICacheConfig* config) override;
  // A writable cache is never evicted.
  void ClearOldCache(bool) override {}
  // The physical length of the local file; 0 without a stream or when the
  // seek fails. Takes file_lock_.
  long long GetFileSize() override EXCLUDES(file_lock_);
  long long GetFileSizeForQuota() override { return GetFileSize(); }
  long long GetLargestEmptyOffset(long long) override { return -1; }
  // Fetches every remaining hole, in runs of adjacent sectors, under a handle
  // of the cache's own (type 2, state 1, info from fetch->HandleInfo).
  // Returns: kOk, kErrRead or kErrFileWrite (some hole could not be fetched
  // or stored), kErrInvalidArgument for a null fetcher.
  unsigned int FillEmptySectors(IFetch* fetch) override;
  // Replaces the log tag only; the local file keeps its path.
  void ChangeFileName(std::string new_name) override;
  // No timed handle here. Returns false.
  bool CheckHandles() override { return false; }

  // Stores origin bytes at their own offset and clears the hole that starts
  // exactly at `offset`. During a fetch of this object only the part within
  // the run asked for is stored. index_lock_ is held by the thread that
  // called the fetcher (only fetches started here deliver to this object).
  // Returns: kOk, kErrFileWrite (also when not all of it could be written).
  int FetchWrite(long long offset, const char* data, long length, long* written) override
      REQUIRES(index_lock_);

  // The log tag. A copy: ChangeFileName may replace it on another thread.
  std::string GetFileName() const EXCLUDES(name_lock_);
  const std::string& GetCacheDir() const { return cache_dir_; }
  const std::string& GetCachePath() const { return cache_path_; }
  // Hands the open stream to the caller and forgets it: afterwards this
  // object has no file, and Close(true) and destruction leave it on disk.
  // Null when no stream is held.
  FILE* ReleaseStream() EXCLUDES(file_lock_);

 private:
  // Fetches `sectors` (hole starts, ascending) in runs of adjacent sectors.
  // A failed run is logged and the next one tried. A hole is filled only
  // when every origin byte of its sector arrived. Returns kOk when no hole
  // of `sectors` is left, else kErrFileWrite when fetched bytes could not be
  // stored, kErrRead when the origin did not deliver them.
  unsigned int FetchEmptySectors(const std::vector<long long>& sectors, IFetch* fetch,
                         const std::shared_ptr<_FS_HANDLE>& handle) REQUIRES(index_lock_);
  // The holes in [from, to).
  std::vector<long long> HolesIn(long long from, long long to) const REQUIRES(index_lock_);
  // Forgets the holes in [from, to).
  void EraseHoles(long long from, long long to) REQUIRES(index_lock_);
  // file_size_ = max(file_size_, GetFileSize()).
  void GrowToPhysicalLength();

  // Written by Close before it takes index_lock_.
  std::atomic<bool> delete_on_close_{true};
  const std::string cache_dir_;
  mutable Mutex name_lock_ ACQUIRED_AFTER(file_lock_);
  std::string file_name_ GUARDED_BY(name_lock_);
  std::string cache_path_;  // set once by the constructor

  Mutex index_lock_;
  Mutex file_lock_ ACQUIRED_AFTER(index_lock_);

  // Close and ReleaseStream hold file_lock_ to clear it.
  FILE* fp_ GUARDED_BY(file_lock_) = nullptr;

  // The logical size. Changed under index_lock_ by Truncate; raised without
  // it after writes (only ever towards the physical length), hence atomic.
  std::atomic<long long> file_size_;
  // Starts of the sectors below the logical size that have been neither
  // fetched nor written. Ascending: filled in order, only ever erased from.
  std::deque<long long> empty_sectors_ GUARDED_BY(index_lock_);
  // The run a fetch of this object is bringing; -1 outside fetches. Under
  // index_lock_, held by the thread whose fetch delivers.
  long long fetching_from_ GUARDED_BY(index_lock_) = -1;
  long long fetching_to_ GUARDED_BY(index_lock_) = -1;
  // How far the run has arrived without a gap, from fetching_from_ on, and
  // whether a delivery could not be stored.
  long long fetched_to_ GUARDED_BY(index_lock_) = -1;
  bool store_failed_ GUARDED_BY(index_lock_) = false;
  // Where the origin's bytes end: the declared size, lowered by Truncate.
  // Fetched bytes past it are not stored (they would grow a cut file back).
  long long origin_end_ GUARDED_BY(index_lock_);

  ICacheConfig* const config_;
  // The local file's length as last reported to the manager's meter.
  StoredBytes stored_ GUARDED_BY(index_lock_);
};
