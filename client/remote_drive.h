// A remote drive: the files of an origin, read and written through one
// korvcache cache directory. This is everything a mounted volume does apart
// from speaking FUSE; korvmount puts FUSE in front of it and korvcat reads
// one file through it.
//
// Thread safety: every public operation may be called from many threads.
// Lock order: names_lock_, then the journal's lock for files becoming
// writable, then RemoteFile io_locks, then files_lock_, then the listings' lock. Only a change of names (names_lock_ held) takes more
// than one io_lock. Under files_lock_ the only library calls are the
// manager's Open, OpenVersion, Close and Rehash of a name, which touch its
// table; reads, writes and uploads run with at most an io_lock held.
//
// The work is divided: remote_file_io.* reads, writes and cuts one file
// through its cache object, remote_file_upload.* saves what was written,
// listing_cache.* keeps directory listings, drive_stats.* renders the
// statistics file, remote_drive_names.cpp removes, renames and makes names,
// remote_drive_freshness.cpp decides when the origin is asked whether a file
// changed and moves readers to its new version; this class keeps the table of open files, checks an opened file against
// the origin's version and ties the parts together.
#pragma once

#include <fcntl.h>
#include <sys/statvfs.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvcache.h"
#include "directory_read_ahead.h"
#include "listing_cache.h"
#include "origin.h"
#include "origin_fetch.h"
#include "remote_file.h"
#include "stderr_log.h"
#include "transfer_counters.h"
#include "worker_queue.h"
#include "write_back.h"
#include "write_journal.h"

struct DriveOptions {
  std::string cache_dir;
  unsigned long long limit = 4ULL << 30;
  int threads = 4;
  unsigned log_mask = LOGLEVEL_WARNING | LOGLEVEL_ERROR;
  std::string settings_json;        // applied with SetConfiguration when not empty
  // Read-only cache files stay in the cache directory at the end of a run,
  // and the next run on it serves them where the origin's version is the same.
  bool keep_cache = true;
  // How long a directory listing, and the size and version of a file it or
  // an open learnt from the origin, are trusted: an open within it asks the
  // origin nothing. 0 asks at every open.
  long long listing_ttl_ms = 1000;
  RetryPolicy retry;
  // -1: a close uploads the file and reports the result. Otherwise a close
  // returns once the bytes are on the local disk, and the upload follows
  // after this many seconds without a close of the file.
  long long write_back_seconds = -1;
  // Once a reader opens files of a directory one after the other, the first
  // bytes of this many files past the one it opened are fetched ahead, on
  // `threads` threads of their own (0: none).
  int files_ahead = 8;
  DriveClock clock = std::chrono::steady_clock::now;  // ages what the drive knows
};

struct FileAttributes {
  bool is_directory = false;
  long long size = 0;
  long long mtime = 0;
  bool read_only = false;
};

// The name of the statistics file at the volume's root, and its path.
extern const char kStatsFileName[];
extern const char kStatsPath[];

// "/" for "/a", "/a" for "/a/b"; and the last component.
std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);

// One open of a file; what FUSE keeps as the file handle.
struct OpenHandle {
  // Null for the statistics file. A read that finds a newer version on the
  // origin moves a read-only handle to it: concurrent reads load and store
  // it with std::atomic_load/atomic_compare_exchange.
  std::shared_ptr<RemoteFile> file;
  std::shared_ptr<_FS_HANDLE> fs_handle;
  bool writable = false;
  std::string snapshot;  // the statistics file's contents as of its open
};

// The library's handle of one open: each open's is its own.
std::shared_ptr<_FS_HANDLE> NewFsHandle(const std::string& path);

// Deletes a discarded file's cached copy as it goes out of scope: declared
// before files_lock_ is taken, it acts once the lock is let go.
struct DiscardedCopy {
  std::shared_ptr<ICacheObj> object;
  ~DiscardedCopy() {
    if (object) object->Close(true);
  }
};

class RemoteDrive {
 public:
  RemoteDrive(std::unique_ptr<Origin> origin, DriveOptions options);
  ~RemoteDrive();  // Shutdown()s
  RemoteDrive(const RemoteDrive&) = delete;
  RemoteDrive& operator=(const RemoteDrive&) = delete;

  // Binds the logger and the worker queue and opens the cache directory.
  bool Start(std::string* error);
  // Uploads what is still unsaved (or keeps it under the cache directory's
  // "unsaved" folder), closes the cache and stops the workers. Idempotent.
  void Shutdown();

  // The operations below return 0 (or a byte count) or a negative errno.
  int GetAttributes(const std::string& path, FileAttributes* attributes);
  int ListDirectory(const std::string& path, std::vector<OriginEntry>* entries);
  // `flags` as for open(2): O_ACCMODE, O_CREAT, O_TRUNC.
  int Open(const std::string& path, int flags, std::unique_ptr<OpenHandle>* handle);
  // Reads stop at the end of the file. A read of a file being written that
  // needed origin bytes it could not get fails rather than return zeros.
  long long Read(OpenHandle* handle, char* buffer, size_t size, long long offset);
  long long Write(OpenHandle* handle, const char* buffer, size_t size, long long offset);
  // With a writable `handle` truncates through it; otherwise opens the path.
  int Truncate(const std::string& path, OpenHandle* handle, long long size);
  // Uploads the file if it was written since its last upload: close() and
  // fsync() report a failed upload. With write-back, schedules the upload
  // once the bytes are on the local disk.
  int Flush(OpenHandle* handle);
  // As Flush, but with write-back too the upload is done now and its result
  // reported: what fsync() does.
  int Sync(OpenHandle* handle);
  int Release(std::unique_ptr<OpenHandle> handle);

  // Changes of names (remote_drive_names.cpp). A file open or cached here
  // follows its name: a renamed one keeps its cache and its open handles,
  // which upload to the new name; a removed one (or one a rename replaced)
  // is never uploaded again and its cache goes with its last handle.
  int Unlink(const std::string& path);
  // Replaces a file at `to`, unless `no_replace`: then -EEXIST.
  int Rename(const std::string& from, const std::string& to, bool no_replace);
  int MakeDirectory(const std::string& path);
  int RemoveDirectory(const std::string& path);
  // `to_now`: the caller asked for the current time, which the upload of a
  // file with unsaved writes gives anyway. A file with unsaved writes is
  // uploaded first. An origin that cannot set times (HTTP) takes a file's
  // time with an upload that carries it, its bytes stored again; a time it
  // cannot hold (a directory's) is -EPERM.
  int SetModificationTime(const std::string& path, long long mtime, bool to_now);
  // The origin's space when it tells; otherwise the cache's limit and what
  // the cache leaves of it.
  int StatFs(struct statvfs* st);

  std::string StatsJson();
  // Returns once the files being read ahead are in the cache.
  void WaitForReadAhead();
  // What the cache directory held from earlier runs when this one started
  // (0 when the cache is not kept).
  unsigned long long KeptBytesAtStart() const { return kept_bytes_at_start_; }
  // Bytes the cache directory holds on disk now.
  unsigned long long CacheDirectoryBytes() const;
  const TransferCounters& counters() const { return counters_; }
  ICache_V2* cache() const { return cache_; }
  Origin* origin() const { return origin_.get(); }
  const DriveOptions& options() const { return options_; }

 private:
  std::shared_ptr<RemoteFile> FindFile(const std::string& path);
  std::shared_ptr<RemoteFile> NewFile(const std::string& path, const OriginFileInfo& seen, bool on_origin,
                                      std::string* error);
  // `ask_origin`: the origin's version is asked for even when the drive's
  // knowledge of it is still within the window.
  int OpenFile(const std::string& path, int flags, std::shared_ptr<RemoteFile>* file, bool ask_origin = false);
  // remote_drive_freshness.cpp:
  DriveTime Now() const { return options_.clock(); }
  // The origin's version of `path`: what the drive learnt of it within the
  // window (from an open, an upload or the directory's listing), else the
  // origin's answer to a Stat. `confirmed` is when that was true.
  OriginStatus CurrentVersion(const std::string& path, bool ask_origin, OriginFileInfo* info,
                              DriveTime* confirmed, std::string* error);
  // Whether a read of `file` that returned `got` for [offset, offset + size)
  // should ask whether the origin holds a newer version: it reached the end
  // of what the drive knows, or a fetch found the version changed.
  bool MayHaveChanged(RemoteFile* file, long long got, size_t size, long long offset);
  // Asks the origin for the file's version; when it is not the one `stale`
  // holds, the handle moves to a fresh copy of it. True when it moved.
  bool MoveToCurrentVersion(OpenHandle* handle, const std::shared_ptr<RemoteFile>& stale);
  int Upload(RemoteFile* file);
  // Reads the first bytes of a file ahead of its reader, who is walking its
  // directory (remote_drive_read_ahead.cpp).
  void ReadAhead(const std::string& path);
  bool ListFilesOf(const std::string& directory, std::vector<std::string>* names);
  // REQUIRES: files_lock_ held.
  void Forget(const std::shared_ptr<RemoteFile>& file);
  // The files of the table at `path` and, for a directory, beneath it.
  // REQUIRES: files_lock_ held.
  std::vector<std::shared_ptr<RemoteFile>> FilesAt(const std::string& path);
  // Moves the table's entry of `file` (and its cache object) to `to`.
  // REQUIRES: files_lock_ and the file's io_lock held.
  void Move(const std::shared_ptr<RemoteFile>& file, const std::string& to);
  void Retire(const std::shared_ptr<RemoteFile>& file);
  // Drops a file the origin no longer holds (unlinked, replaced by a rename,
  // gone) from the table, and its cached copy with it, so that none is kept
  // for the next run: through `copy`, once files_lock_ is let go, as the
  // deletion waits for the file's fetches. The copy of a file still open
  // stays for its readers; a removed one's goes at its last release.
  // REQUIRES: files_lock_ held.
  void Discard(const std::shared_ptr<RemoteFile>& file, DiscardedCopy* copy);

  // Keeping written data safe (remote_drive_saving.cpp): the journal, what an
  // earlier run left, and write-back.
  bool StartSaving(std::string* error);
  void StopSaving();
  int MakeWritable(RemoteFile* file);
  // At a close: uploads the file, or with write-back schedules its upload.
  int Save(const std::shared_ptr<RemoteFile>& file);
  int UploadInBackground(const std::shared_ptr<RemoteFile>& file);
  std::unique_ptr<WriteJournal> journal_;
  std::unique_ptr<WriteBack> write_back_;

  const std::unique_ptr<Origin> origin_;
  const DriveOptions options_;
  StderrLog log_;
  std::unique_ptr<WorkerQueue> queue_;
  std::unique_ptr<DirectoryReadAhead> read_ahead_;
  ICache_V2* cache_ = nullptr;
  bool started_ = false;
  unsigned long long kept_bytes_at_start_ = 0;
  TransferCounters counters_;
  std::atomic<bool> stopping_{false};     // set at unmount: transfers end
  std::atomic<long long> uploads_{0};     // uploads done; an open that raced one checks again
  ListingCache listings_;
  std::mutex names_lock_;  // one change of names at a time: each takes several io_locks

  std::mutex files_lock_;
  // State below is protected by files_lock_.
  std::map<std::string, std::shared_ptr<RemoteFile>> files_;
  // Fetchers of files dropped from the table, kept until their cache object
  // is gone: until then queued library work may still call them.
  std::vector<std::pair<std::weak_ptr<ICacheObj>, std::shared_ptr<OriginFetch>>> retired_;
  bool shut_down_ = false;
};
