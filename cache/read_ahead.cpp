// Read-ahead of ReadonlyCache: the decision (ReadAheadPolicy) applied to a
// read, and how far the cached run reaches.
#include <algorithm>

#include "cache/fetch_tasks.h"
#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"

int ReadonlyCache::CheckReadAhead(_READDATA* rd) {
  const SteadyTime now = SteadyNow();
  const _CACHECONFIG conf = GetConfig();
  const std::string tag = GetFileName();
  // Past the middle of the only block on its way, the next one is queued
  // already: it follows that block on the link without a gap, instead of
  // starting after it has arrived and paying the origin's latency at every
  // block boundary.
  const int running = large_fetches_.load();
  const bool busy = running > 1 || (running == 1 && rd->offset < read_ahead_middle_);
  if (!busy && rd->fetch == nullptr) return kOk;
  const long long run_end = busy ? 0 : LargestEmptyOffsetNoLock(rd->offset);
  const ReadAheadPolicy::Settings settings{origin_size_, config_ != nullptr ? config_->GetQuota() : 0, conf.rahit,
                                           static_cast<long long>(conf.ramax)};
  const ReadAheadPolicy::Decision decision =
      read_ahead_policy_.Consider({rd->offset, rd->size, now, run_end, busy}, settings);

  using Verdict = ReadAheadPolicy::Verdict;
  const char* const kWhere = "CheckReadAhead";
  switch (decision.verdict) {
    case Verdict::kBusy:
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] There is a busy read_ahead_!", tag.c_str(), kWhere);
      return kOk;
    case Verdict::kRunTooLong:
    case Verdict::kCachedToEnd:
      return kOk;
    case Verdict::kBeyondQuota:
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] rd->offset: %d meanwhile empty_offset: %lld.", tag.c_str(),
               static_cast<int>(rd->offset), run_end);
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Closest empty offset exceeds the quota!", tag.c_str(), kWhere);
      return kOk;
    default:
      break;
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Closest empty offset is within the quota!", tag.c_str(), kWhere);
  switch (decision.verdict) {
    case Verdict::kFirstRead:
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] No history yet!", tag.c_str(), kWhere);
      return kOk;
    case Verdict::kNotContinuous:
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Reserving offsets are not continuous. Clearing history.",
               tag.c_str());
      return kOk;
    case Verdict::kTooFewReads:
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] histsize: %d but conf.rahit: %lu, no read-ahead this time.",
               tag.c_str(), static_cast<int>(decision.history_size), static_cast<unsigned long>(conf.rahit));
      return kOk;
    default:
      break;
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Since  histsize: %d while conf.rahit: %uld, go read-ahead!", tag.c_str(),
           static_cast<int>(decision.history_size), static_cast<unsigned>(conf.rahit));
  // The block starts at the end of the run the read lies in: when that
  // sector is on its way already (the last of the block in flight, while the
  // reader is past its middle), the block starts after it instead of
  // fetching it a second time.
  long long offset = decision.offset;
  long long size = decision.size;
  const _SECTOR* last = index_.Find(offset);
  if (last != nullptr && last->reserved) {
    offset += kSectorSize;
    size = std::min(size, origin_size_ - offset);
    if (size <= 0) return kOk;
  }
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead from %lld, %lld bytes", tag.c_str(), offset, size);
  ReserveNoLock(offset, size);
  auto* task = new AsyncLargeFetch(this, rd->fetch, offset, size, rd->handle, false);
  large_fetches_.fetch_add(1);
  read_ahead_middle_ = offset + size / 2;
  QueueAsync(task, nullptr);  // may run, and free, the task right here
  return static_cast<int>(kFetchQueued);
}

long long ReadonlyCache::GetLargestEmptyOffset(long long offset) {
  MutexLock guard(index_lock_);
  return LargestEmptyOffsetNoLock(offset);
}

long long ReadonlyCache::LargestEmptyOffsetNoLock(long long offset) {
  const _CACHECONFIG conf = GetConfig();
  if (index_.Find(SectorOf(offset)) != nullptr) {
    const std::string tag = GetFileName();
    const std::deque<long long>& free_slots = index_.free_slots();
    if (free_slots.empty()) {
      KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] At %s, empty_sectors_ is empty.", tag.c_str(),
               "GetLargestEmptyOffset");
    } else {
      KORV_LOG(LOGLEVEL_INFO,
               "[CACHE     ] [%s] At %s, size of empty_sectors_ is %d, the first sector is %lld and the last one is "
               "%lld.",
               tag.c_str(), "GetLargestEmptyOffset", static_cast<int>(free_slots.size()), free_slots.front(),
               free_slots.back());
    }
  }
  return index_.RunEnd(offset, static_cast<long long>(conf.ramax));
}
