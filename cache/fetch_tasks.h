// The work items that bring origin data into a sector cache.
//
// Each runs once, through the client's queue or inline on the reader's
// thread, and deletes itself at the end of Process or Canceled. While one
// exists it is counted in its cache's task count, and the cache's Close
// waits for that count to drop to zero: a task never outlives its cache.
// Run inline, a task runs on a thread that holds the cache's index lock and
// tells the cache so (IndexLock::kHeld).
#pragma once

#include <memory>

#include "cache/fetch_target.h"
#include "korvcache.h"

// What both fetch tasks hold: the cache, the fetcher, the range and the
// reader's handle. Counts itself in the cache's task count while it exists.
class FetchTask : public IAsyncObj {
 public:
  ~FetchTask() override;
  FetchTask(const FetchTask&) = delete;
  FetchTask& operator=(const FetchTask&) = delete;

 protected:
  FetchTask(FetchTarget* cache, IFetch* fetch, long long offset, long long length,
            std::shared_ptr<_FS_HANDLE> handle);

  FetchTarget* cache_;
  IFetch* fetch_;
  long long offset_;
  long long length_;
  std::shared_ptr<_FS_HANDLE> handle_;
};

// Fetches one run of missing sectors for a read.
class AsyncFetch : public FetchTask {
 public:
  AsyncFetch(FetchTarget* cache, IFetch* fetch, long long offset, long long length,
             std::shared_ptr<_FS_HANDLE> handle);
  void Process(void* param) override;
  void Canceled(void* param) override;
};

// Fetches a read-ahead block, in pieces of at most the largest single origin
// request, or a whole file in one piece. At most one exists per cache.
class AsyncLargeFetch : public FetchTask {
 public:
  AsyncLargeFetch(FetchTarget* cache, IFetch* fetch, long long offset, long long length,
                  std::shared_ptr<_FS_HANDLE> handle, bool whole_file);
  void Process(void* param) override;
  void Canceled(void* param) override;

 private:
  bool whole_file_;
};
