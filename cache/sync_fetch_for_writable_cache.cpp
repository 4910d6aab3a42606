#include "cache/sync_fetch_for_writable_cache.h"

#include <cstdint>
#include <utility>

#include "cache/logging.h"
#include "cache/writable_cache.h"

SyncFetchForWritableCache::SyncFetchForWritableCache(WritableCache* cache, IFetch* fetch,
                                                     long long offset, long length,
                                                     std::shared_ptr<_FS_HANDLE> handle)
    : cache_(cache), fetch_(fetch), offset_(offset), length_(length), handle_(std::move(handle)) {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead for writable cache : %lld, %d",
           cache_->GetFileName().c_str(), offset_, static_cast<int>(length_));
}

int SyncFetchForWritableCache::Process() {
  // Only the low 32 bits of the fetcher's result carry its status.
  long long result = fetch_->Fetch(offset_, length_, handle_, cache_);
  if (static_cast<uint32_t>(result) != 0) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read-ahead for writable cache failed : %lld, %d",
             cache_->GetFileName().c_str(), offset_, static_cast<int>(length_));
    return 1;
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Read-ahead for writable cache done : %lld, %d",
           cache_->GetFileName().c_str(), offset_, static_cast<int>(length_));
  return 0;
}
