// What a RemoteDrive knows of one remote file it has opened: its cache
// object, its fetcher, the origin version the cache holds and whether local
// writes still wait for upload.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "drive_clock.h"
#include "korvcache.h"
#include "origin.h"
#include "origin_fetch.h"
#include "transfer_counters.h"

class WriteJournal;

struct RemoteFile {
  explicit RemoteFile(std::string file_path) : path_(std::move(file_path)) {}

  // Changed by a rename, with the file's io_lock and the drive's files_lock_ held.
  std::string Path() {
    std::lock_guard<std::mutex> guard(seen_lock);
    return path_;
  }
  void SetPath(const std::string& path) {
    std::lock_guard<std::mutex> guard(seen_lock);
    path_ = path;
  }

  // The origin's version the cache holds, and when the origin last
  // confirmed it (the drive's clock; DriveTime() for never).
  OriginFileInfo Seen(DriveTime* confirmed = nullptr) {
    std::lock_guard<std::mutex> guard(seen_lock);
    if (confirmed != nullptr) *confirmed = confirmed_at;
    return seen;
  }
  void SetSeen(const OriginFileInfo& info, DriveTime confirmed) {
    std::lock_guard<std::mutex> guard(seen_lock);
    seen = info;
    confirmed_at = confirmed;
  }
  // The origin answered, at `at`, that it still holds the version seen.
  void Confirm(DriveTime at) {
    std::lock_guard<std::mutex> guard(seen_lock);
    if (at > confirmed_at) confirmed_at = at;
  }

  // Set once, before the file is shared. The fetcher is declared first so
  // that it outlives the cache object, whose destruction waits for the
  // fetches it started.
  std::shared_ptr<OriginFetch> fetch;
  std::shared_ptr<ICacheObj> object;

  // Shared with the fetcher, whose transfers may outlive this record.
  const std::shared_ptr<TransferCounters> counters = std::make_shared<TransferCounters>();
  // The size readers see: the origin's, or the local copy's once written.
  std::atomic<long long> size{0};
  std::atomic<long long> mtime{0};
  // A time set by the user that the next upload carries where the origin's
  // uploads can (0: none). A write clears it: the file's time is then the write's.
  std::atomic<long long> kept_mtime{0};
  std::atomic<bool> on_origin{true};  // false: created here, never uploaded
  std::atomic<bool> writable{false};  // the cache object is in mode 'w'
  std::atomic<bool> dirty{false};     // written since the last upload; set and cleared under io_lock
  // Unlinked, or replaced by a rename: whatever is still written through an
  // open handle is never uploaded. Set under io_lock.
  std::atomic<bool> removed{false};

  // Serializes writes, truncates, the switch to mode 'w' and uploads. It is
  // held across origin transfers, so nothing waits for it while holding the
  // drive's files_lock_ (the order is io_lock, then files_lock_).
  std::mutex io_lock;

  // The journal of unsaved writes (write_journal.h), set when the file is
  // first opened for writing; the cache file holding its writable copy, in
  // the cache directory; and its journal record's id, empty while it has
  // none. The last two under io_lock.
  WriteJournal* journal = nullptr;
  std::string local_name;
  std::string journal_id;

  // Protected by the drive's files_lock_.
  int opens = 0;
  int writers = 0;

 private:
  std::mutex seen_lock;
  std::string path_;
  OriginFileInfo seen;  // the origin's version the cache holds
  DriveTime confirmed_at;
};
