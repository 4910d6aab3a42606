// One origin fetch for a WritableCache, run synchronously on the calling
// thread. Never queued: it is built on the stack and Process is called
// directly, so the origin delivers into the cache before Process returns.
#pragma once

#include <memory>

#include "korvcache.h"

class WritableCache;

class SyncFetchForWritableCache {
 public:
  // Logs the run it is about to fetch. `cache` and `fetch` must outlive it.
  SyncFetchForWritableCache(WritableCache* cache, IFetch* fetch, long long offset, long length,
                            std::shared_ptr<_FS_HANDLE> handle);
  virtual ~SyncFetchForWritableCache() = default;

  // Asks the origin for the run, delivered through the cache's FetchWrite.
  // REQUIRES: the cache's index_lock_ held.
  // Returns 0 on success, 1 when the fetcher reports a failure.
  int Process();

 private:
  WritableCache* const cache_;
  IFetch* const fetch_;
  const long long offset_;
  const long length_;
  const std::shared_ptr<_FS_HANDLE> handle_;
};
