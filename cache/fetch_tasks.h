// The work items that bring origin data into a sector cache.
//
// Each runs once, through the client's queue or inline on the reader's
// thread, and deletes itself at the end of Process or Canceled. While one
// exists it is counted in its cache's task count, and the cache's Close
// waits for that count to drop to zero: a task never outlives its cache.
//
// A non-null `context` in Process means the item runs inline on the thread
// that queued it, which holds the cache's index lock: the item then uses the
// cache's no-lock paths.
#pragma once

#include <memory>

#include "korvcache.h"

class ReadonlyCache;

// Delivers fetched bytes to a cache whose index lock the caller already holds.
class SyncFetch : public IFetchCallback {
 public:
  explicit SyncFetch(ReadonlyCache* cache) : cache_(cache) {}
  int FetchWrite(long long offset, const char* data, long length, long* written) override;
  virtual ~SyncFetch() = default;
  void ClearReserved(long long offset, long long length);

 private:
  ReadonlyCache* cache_;
};

// What both fetch tasks hold: the cache, the fetcher, the range and the
// reader's handle. Counts itself in the cache's task count while it exists.
class FetchTask : public IAsyncObj {
 public:
  ~FetchTask() override;
  FetchTask(const FetchTask&) = delete;
  FetchTask& operator=(const FetchTask&) = delete;

 protected:
  FetchTask(ReadonlyCache* cache, IFetch* fetch, long long offset, long long length,
            std::shared_ptr<_FS_HANDLE> handle);

  ReadonlyCache* cache_;
  IFetch* fetch_;
  long long offset_;
  long long length_;
  std::shared_ptr<_FS_HANDLE> handle_;
};

// Fetches one run of missing sectors for a read.
class AsyncFetch : public FetchTask {
 public:
  AsyncFetch(ReadonlyCache* cache, IFetch* fetch, long long offset, long long length,
             std::shared_ptr<_FS_HANDLE> handle);
  void Process(void* context) override;
  void Canceled(void* context) override;
};

// Fetches a read-ahead block, in pieces of at most the largest single origin
// request, or a whole file in one piece. At most one exists per cache.
class AsyncLargeFetch : public FetchTask {
 public:
  AsyncLargeFetch(ReadonlyCache* cache, IFetch* fetch, long long offset, long long length,
                  std::shared_ptr<_FS_HANDLE> handle, bool whole_file);
  void Process(void* context) override;
  void Canceled(void* context) override;

 private:
  bool whole_file_;
};
