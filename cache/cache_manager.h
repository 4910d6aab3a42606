// The manager of one cache directory: its settings, its storage limit, its
// table of open cache objects and its quota manager thread.
//
// Thread safety: every operation may be called from any client thread
// while the quota manager runs. Locks, outermost first: objects_lock_, then
// a cache object's own lock, then the cache file's locks. settings_lock_ is
// taken alone (with the settings registry's own lock inside it).
#pragma once

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "cache/kept_files.h"
#include "cache/quota_thread.h"
#include "cache/storage_meter.h"
#include "common/config.h"
#include "common/thread_annotations.h"
#include "korvcache.h"

class CacheObj;

// The settings and the limit as the cache objects of one manager see them.
// Objects a client still holds outlive the manager; once it is detached they
// get the values of that moment instead of reaching into a destroyed manager.
class ManagerConfigLink final : public ICacheConfig, public StorageMeter, public KeepSetting {
 public:
  ManagerConfigLink(ICacheConfig* manager, StorageMeter* meter) : manager_(manager), meter_(meter) {}
  unsigned long long GetQuota() override;
  _CACHECONFIG GetConfig() override;
  // Counted here; passed on to the manager while attached.
  void Stored(long long delta) override;
  // Waits, at most kRoomWait, while more than the ceiling is stored.
  void WaitForRoom() override;
  // Where fetches start to wait for room; kNoCeiling: never.
  void SetCeiling(long long bytes);
  // Takes the manager's values and lets go of it; fetches no longer wait.
  void Detach();
  // The "/cache/keep" setting, as the manager last applied it (also once
  // detached: objects destroyed after the manager keep their files alike).
  bool KeepFiles() override { return keep_files_.load(std::memory_order_relaxed); }
  void SetKeepFiles(bool keep) { keep_files_.store(keep, std::memory_order_relaxed); }

  static constexpr long long kNoCeiling = LLONG_MAX;
  static constexpr std::chrono::milliseconds kRoomWait{200};

 private:
  Mutex lock_;
  ICacheConfig* manager_ GUARDED_BY(lock_);  // null once detached
  StorageMeter* meter_ GUARDED_BY(lock_);    // likewise
  unsigned long long quota_ GUARDED_BY(lock_) = 0;
  _CACHECONFIG config_ GUARDED_BY(lock_){};

  // The files' reports added up here as well: waiting fetches read it
  // without reaching into the manager, which may be gone.
  std::atomic<long long> stored_{0};
  std::atomic<long long> ceiling_{kNoCeiling};
  std::atomic<bool> keep_files_{false};
  // Fetches waiting for room sleep on room_; a store that frees bytes and a
  // new ceiling wake them. Changes of stored_ and ceiling_ are announced under
  // room_lock_, so a waiter that just found no room does not miss them.
  Mutex room_lock_ ACQUIRED_AFTER(lock_);
  std::condition_variable_any room_;
  std::atomic<int> waiting_{0};
};

class Cache : public ICache_V2, public ICacheConfig, private QuotaDirectory, private StorageMeter {
 public:
  // The floor of a limit given by the client.
  static constexpr long long kMinimumLimit = 67108864;

  // Creates the directory component by component (a relative path is taken
  // from the root), fits the limit to the volume, reads the settings file
  // "korv.ini" (section "CACHE") from the resource directory and starts the
  // quota manager. Throws AERROR kErrCacheDirectory when the directory cannot
  // be created or is not a directory, and std::system_error when the thread
  // cannot be started.
  Cache(const char* path, unsigned long long limit);
  // Sector cache files an earlier run kept (see kept_files.h) are found
  // here: those without an undamaged index are removed, the others become
  // objects outside the table (tended by the quota manager, counted in the
  // used bytes) until Open hands them out or the manager ends.
  //
  // Stops and joins the quota manager, then closes every object nobody else
  // holds. Objects a client still holds keep working with the settings of
  // this moment. With "/cache/keep" on, read-only objects keep their files
  // for the next run instead of deleting them.
  ~Cache() override;

  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  unsigned long long GetLimit() override;
  // The bytes the cache files of this manager's objects hold, counted as
  // they are stored and dropped.
  unsigned long long GetUsedBytes() override;
  // Returns: kOk, kErrLimitTooSmall (below 64 MiB; the limit stays).
  unsigned int SetLimit(unsigned long long bytes) override;
  // The object of `name`, created on first use. 'w' on a read-only object
  // converts it; 'r' on a writable one keeps it writable.
  // Throws AERROR kErrInvalidArgument (null name, or a name with nothing
  // after its last slash), kErrInvalidMode, kErrCreateFile.
  std::shared_ptr<ICacheObj> Open(const char* name, char mode, long long size, IFetch* fetch) override;
  // Open, knowing the origin's `version` (null: ""). A name not in the table
  // whose file an earlier run kept gets that file back when the mode is
  // 'r', "/cache/keep" is on, and `size` and `version` are those it was
  // kept with; with another size or version its sectors are dropped first,
  // and for mode 'w' or with the setting off it is deleted.
  std::shared_ptr<ICacheObj> OpenVersion(const char* name, char mode, long long size, IFetch* fetch,
                                         const char* version) override;
  // Drops the table's reference; clients holding the object keep it. With
  // "/cache/keep" on, a read-only object nobody else holds is kept: its
  // index is written and the next Open of the name gets it back. Returns kOk.
  unsigned int Close(const char* name) override;
  // Moves the object of `old_name` to `new_name` (force-closing an object
  // already there) and renames its cache file. Returns: kOk, kErrNotOpen.
  unsigned int Rehash(const char* old_name, const char* new_name, const char* new_file_name) override;
  // Returns: kOk, kErrInvalidArgument (null), kErrJson (earlier settings
  // changed before the failure stay changed).
  unsigned int SetConfiguration(const char* text) override;
  unsigned long long GetQuota() override;
  _CACHECONFIG GetConfig() override;

  // Copies the registry's values into the settings record.
  void ApplyConfig();
  // Lowers the limit to half of what the volume could hold when the limit
  // exceeds it: free space plus what read-only cache files occupy.
  void AdjustLimit() { FitLimitToVolume(0); }
  // The cache directory, with leading and trailing "/".
  const std::string& path() const override { return path_; }
  // One pass of the quota thread, now, on the calling thread (for tests).
  void RunQuotaPassNow() { quota_thread_->RunPassNow(); }

 private:
  std::vector<std::shared_ptr<CacheObj>> FilesToTend() override;
  long long Limit() override { return limit_.load(); }
  unsigned long long StoredBytes() override { return GetUsedBytes(); }
  long long ClearPeriodMs() override { return static_cast<long long>(GetConfig().clrperiod); }
  bool HardLimit() override { return hard_limit_.load(std::memory_order_relaxed); }
  // With the hard limit on, crossing the limit wakes the quota thread.
  void Stored(long long delta) override;
  // With the hard limit on, fetches wait for room a sixteenth of the limit
  // over it; set whenever the limit or the setting changes.
  void UpdateCeiling();
  // AdjustLimit, also counting `kept_bytes` of files not yet in an object.
  void FitLimitToVolume(long long kept_bytes);
  // Makes objects of the files an earlier run kept.
  void AdoptKeptFiles(std::vector<FoundFile> found) EXCLUDES(objects_lock_);

  std::string path_;
  // Read and written without a lock by client threads and the quota manager.
  std::atomic<long long> limit_;
  // What the cache files of this manager's objects report storing.
  std::atomic<uint64_t> used_bytes_{0};
  // The "/cache/clear/hard" setting: off unless a client turns it on.
  std::atomic<bool> hard_limit_{false};

  Mutex objects_lock_;
  std::unordered_map<std::string, std::shared_ptr<CacheObj>> objects_ GUARDED_BY(objects_lock_);
  // Read-only objects whose files are kept, by name, not in the table: found
  // at start or closed by name. A name is never in both.
  std::unordered_map<std::string, std::shared_ptr<CacheObj>> kept_ GUARDED_BY(objects_lock_);

  Mutex settings_lock_;
  Config registry_;
  _CACHECONFIG settings_ GUARDED_BY(settings_lock_){};

  // Handed to every object instead of this manager itself.
  const std::shared_ptr<ManagerConfigLink> link_ = std::make_shared<ManagerConfigLink>(this, static_cast<StorageMeter*>(this));

  std::unique_ptr<QuotaThread> quota_thread_;  // last: started once all else is set
};
