// Reservations of ReadonlyCache: marking the sectors whose bytes are on
// their way, and forgetting those that did not come.
#include <algorithm>
#include <string>

#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"

unsigned int ReadonlyCache::Reserve(long long offset, long long length) {
  MutexLock guard(index_lock_);
  return ReserveNoLock(offset, length);
}

unsigned int ReadonlyCache::ReserveNoLock(long long offset, long long length) {
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Reserved blocks %lld to %lld(%lld bytes)", tag.c_str(), offset,
           offset + length, length);
  if (offset % kSectorSize != 0) return kErrUnaligned;
  // Nothing is reserved outside the origin: a range past its end would only
  // fill the index with sectors no fetch ever settles.
  if (offset < 0 || length <= 0 || offset >= origin_size_) return kNothingReserved;
  const int count = index_.Reserve(offset, std::min(length, origin_size_ - offset), SteadyNow());
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] %d blocks reserved", tag.c_str(), count);
  return count == 0 ? kNothingReserved : kOk;
}

unsigned int ReadonlyCache::ClearReserved(long long offset, long long length) {
  MutexLock guard(index_lock_);
  ClearReservedNoLock(offset, length);
  return kOk;
}

void ReadonlyCache::ClearReservedNoLock(long long offset, long long length) {
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Clear reserved blocks %lld to %lld(%lld bytes)",
           GetFileName().c_str(), offset, offset + length, length);
  index_.ClearReserved(offset, length);
  IndexChangedNoLock();
}

void ReadonlyCache::ForgetReserved(long long offset, long long length, IndexLock lock) {
  if (lock == IndexLock::kHeld) {
    ClearReservedNoLock(offset, length);
  } else {
    ClearReserved(offset, length);
  }
}
