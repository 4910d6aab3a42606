// The cache object of one file name, as handed to clients by the manager.
//
// Holds the current cache file, a ReadonlyCache (mode 'r') or a
// WritableCache (mode 'w'), and forwards every operation to it.
//
// Thread safety: any thread may call any operation. lock_ guards file_,
// file_name_, hash_index_ and version_. Read and Write hold it only to take a counted
// reference to the file and run without it, so reads and writes proceed in
// parallel with each other and with a mode switch, and a switch never frees
// a file under a running read. Every other operation holds lock_ for its
// whole call. Lock order: the manager's table lock, then lock_, then the
// cache file's own locks.
#pragma once

#include <memory>
#include <string>

#include <vector>

#include "cache/kept_files.h"
#include "cache/sector_index.h"
#include "common/thread_annotations.h"
#include "korvcache.h"

class CacheObj : public ICacheObj {
 public:
  // Creates the cache file for `mode` at once. `directory` must end with a
  // separator. `config` must outlive the object, which `config_owner`, when
  // given, sees to.
  // Throws AERROR kErrInvalidMode for a mode other than 'r' or 'w', and
  // whatever the cache file's constructor throws (kErrCreateFile).
  // `version` is the client's version of the origin, kept with the file.
  CacheObj(std::string directory, std::string file_name, char mode, long long size, IFetch* fetch,
           ICacheConfig* config, std::string hash_index, std::shared_ptr<ICacheConfig> config_owner = nullptr,
           std::string version = "");
  // The object of a file an earlier run kept, read-only, under the name and
  // version of its index.
  CacheObj(std::string directory, std::string file_name, FoundFile found, ICacheConfig* config,
           std::shared_ptr<ICacheConfig> config_owner);
  // Closes the cache file with deletion; when the manager's settings keep
  // files, a read-only file is kept for the next run instead (with this
  // object's hash index and version).
  ~CacheObj() override;

  CacheObj(const CacheObj&) = delete;
  CacheObj& operator=(const CacheObj&) = delete;

  // Returns kErrInvalidArgument without a file, else the file's result.
  unsigned int Read(_READDATA* request) override;
  // As Read; afterwards request->file_size holds the cache file's size.
  unsigned int Write(_WRITEDATA* request) override;
  // Switches the file form. A new, empty file of the other form replaces
  // the old one: no contents are carried over. Returns: kOk, kErrInvalidMode.
  unsigned int SetMode(char mode, long long size, IFetch* fetch) override;
  unsigned int Reserve(long long offset, long long length) override;
  unsigned int ClearReserved(long long offset, long long length) override;
  unsigned int Truncate(long long size) override;
  unsigned int FillEmptySectors(IFetch* fetch) override;
  std::string GetHashIndex() override;
  // Closes the file; with `force` also lets go of it, so the object has no
  // file afterwards. Returns the file's result, kErrNotOpen without a file.
  unsigned int Close(bool force) override;
  void SetHashIndex(const char* hash_index) override;

  // For the manager. Without a file these answer false / 0 / nothing.
  bool IsReadOnly();
  // The bytes the cache file occupies for quota purposes.
  long long GetFileSize();
  bool CheckHandles();
  void ClearOldCache(bool over_quota);
  // The sector cache's settled sectors (none for a writable file) and
  // dropping those read at or before `cutoff`: see ReadonlyCache.
  std::vector<SectorAge> SectorAges();
  void DropReadBefore(SteadyTime cutoff);
  void ChangeFileName(std::string new_name);
  // Before a kept file is handed out again: its sectors stay when the
  // origin's size and `version` are those it was kept with, else they go.
  void ReuseFor(long long size, const std::string& version);
  // Writes the index of a read-only file beside it, the object staying in
  // use (see ReadonlyCache::WriteIndex).
  void SaveIndex();

 private:
  // Throws like the constructor.
  void CreateFile(char mode, long long size, IFetch* fetch) REQUIRES(lock_);
  std::shared_ptr<ICacheFile> CurrentFile() EXCLUDES(lock_);

  const std::string directory_;
  const std::shared_ptr<ICacheConfig> config_owner_;
  ICacheConfig* const config_;

  Mutex lock_;
  std::string file_name_ GUARDED_BY(lock_);
  std::string hash_index_ GUARDED_BY(lock_);
  std::string version_ GUARDED_BY(lock_);
  std::shared_ptr<ICacheFile> file_ GUARDED_BY(lock_);
};
