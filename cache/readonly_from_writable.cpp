// Turning a writable cache's local file into a sector cache in place.
#include <algorithm>

#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "cache/writable_cache.h"

ReadonlyCache::ReadonlyCache(WritableCache* source, ICacheConfig* config)
    : cache_dir_(source->GetCacheDir()),
      file_name_(source->GetFileName()),
      cache_path_(source->GetCachePath()),
      handle_(cache_path_),
      origin_size_(source->GetFileSize()),
      config_(config),
      read_ahead_policy_(ReadAheadFor(config)),
      stored_(MeterOf(config)),
      meter_(MeterOf(config)) {
  // The local file is laid out like the file itself: sector s sits at s.
  handle_ = source->ReleaseStream();
  file_created_.store(true, std::memory_order_relaxed);
  const SteadyTime now = SteadyNow();
  long long remaining = origin_size_;
  for (long long s = 0; remaining > 0; s += kSectorSize) {
    const long long size = std::min(remaining, kSectorSize);
    index_.AddSettled(s, s, size, now);
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Inserted new sector %lld into sectors_.", file_name_.c_str(),
             "ReadonlyCache", s);
    remaining -= size;
  }
  {
    MutexLock guard(index_lock_);
    ReportStoredNoLock();
  }
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read only cache from writable cache created", file_name_.c_str());
}

ICacheFile* WritableCache::RebuildToReadonlyCache(IFetch*, ICacheConfig* config) {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Writable cache to read only cache", GetFileName().c_str());
  return new ReadonlyCache(this, config);
}
