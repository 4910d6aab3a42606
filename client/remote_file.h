// What a RemoteDrive knows of one remote file it has opened: its cache
// object, its fetcher, the origin version the cache holds and whether local
// writes still wait for upload.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "korvcache.h"
#include "origin.h"
#include "origin_fetch.h"
#include "transfer_counters.h"

struct RemoteFile {
  explicit RemoteFile(std::string file_path) : path(std::move(file_path)) {}

  const std::string path;
  // Set once, before the file is shared.
  std::shared_ptr<ICacheObj> object;
  std::shared_ptr<OriginFetch> fetch;

  TransferCounters counters;
  // The size readers see: the origin's, or the local copy's once written.
  std::atomic<long long> size{0};
  std::atomic<long long> mtime{0};

  std::mutex lock;
  // State below is protected by lock.
  OriginFileInfo seen;    // the origin's version the cache holds
  bool on_origin = true;  // false: created here, never uploaded
  bool writable = false;  // the cache object is in mode 'w'
  bool dirty = false;     // written since the last upload

  // Protected by the drive's files_lock_.
  int opens = 0;
  int writers = 0;
};
