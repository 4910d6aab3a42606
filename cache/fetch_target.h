// What a fetch task needs of the sector cache it fills, and nothing more.
// The tasks see their cache only through this interface, so the read path
// depends on the tasks it queues and the tasks on this header alone.
#pragma once

#include <string>

#include "korvcache.h"

// Whether the calling thread already holds the cache's index lock. A task
// run by the client's queue does not; one that QueueAsync ran inline, on the
// reading thread that queued it, does.
enum class IndexLock { kNotHeld, kHeld };

// QueueAsync hands Process a non-null parameter exactly when it runs the
// item inline on the queuing thread (the fetch tasks are always queued with
// a null one).
inline IndexLock IndexLockForQueueParam(void* param) {
  return param != nullptr ? IndexLock::kHeld : IndexLock::kNotHeld;
}

class FetchTarget {
 public:
  // Stores fetched bytes, as IFetchCallback::FetchWrite does.
  virtual int StoreFetched(long long offset, const char* data, long length, long* written, IndexLock lock) = 0;
  // Makes the sectors of the range that are still reserved absent again, so
  // waiting readers queue them anew instead of waiting for ever.
  virtual void ForgetReserved(long long offset, long long length, IndexLock lock) = 0;
  // The current settings of the owning manager.
  virtual _CACHECONFIG GetConfig() = 0;
  // Holds the calling fetch up, for a bounded time, while the cache
  // directory has no room (see StorageMeter). REQUIRES: no lock of the cache
  // held.
  virtual void WaitForRoom() = 0;
  // The log tag.
  virtual std::string GetFileName() const = 0;
  // Bookkeeping of the tasks that refer to the cache: it outlives them all.
  virtual void TaskStarted() = 0;
  virtual void TaskEnded() = 0;
  // The large read-ahead `task` ends (it is no longer counted as running).
  virtual void LargeFetchEnded(const IAsyncObj* task) = 0;

 protected:
  ~FetchTarget() = default;
};
