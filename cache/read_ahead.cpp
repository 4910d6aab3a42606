// Read-ahead of ReadonlyCache: the read history, the decision to fetch a
// large block beyond the cached data, and how far the cached run reaches.
#include <algorithm>

#include "cache/fetch_tasks.h"
#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"

namespace {

constexpr size_t kHistoryLength = 10;
// Reads further apart in time than this are not one sequential stream.
constexpr long long kMaxPauseSeconds = 300;

}  // namespace

int ReadonlyCache::CheckReadAhead(_READDATA* rd) {
  const SteadyTime now = SteadyNow();
  const _CACHECONFIG conf = GetConfig();
  const std::string tag = GetFileName();
  const _READHISTORY this_read{rd->offset, rd->size, now};

  if (read_ahead_.load() != nullptr) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] There is a busy read_ahead_!", tag.c_str(), "CheckReadAhead");
    RecordRead(this_read);
    return kOk;
  }
  if (rd->fetch == nullptr) return kOk;

  const long long empty_offset = LargestEmptyOffsetNoLock(rd->offset);
  if (empty_offset == -1) return kOk;
  if (empty_offset + kSectorSize >= origin_size_) {
    history_.clear();  // cached to its end: nothing to read ahead
    return kOk;
  }
  // Never fill more than one storage limit beyond the reader.
  if (static_cast<unsigned long long>(empty_offset) >=
      static_cast<unsigned long long>(rd->offset) + (config_ != nullptr ? config_->GetQuota() : 0)) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] rd->offset: %d meanwhile empty_offset: %lld.", tag.c_str(),
             static_cast<int>(rd->offset), empty_offset);
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Closest empty offset exceeds the quota!", tag.c_str(),
             "CheckReadAhead");
    RecordRead(this_read);
    return kOk;
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Closest empty offset is within the quota!", tag.c_str(),
           "CheckReadAhead");
  if (history_.empty()) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] No history yet!", tag.c_str(), "CheckReadAhead");
    RecordRead(this_read);
    return kOk;
  }

  const _READHISTORY& newest = history_.back();
  const long long paused = std::chrono::duration_cast<std::chrono::seconds>(now - newest.time).count();
  const long long ramax = static_cast<long long>(conf.ramax);
  if (paused > kMaxPauseSeconds || rd->offset < newest.offset || rd->offset > newest.offset + ramax) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Reserving offsets are not continuous. Clearing history.",
             tag.c_str());
    history_.clear();
    RecordRead(this_read);
    return kOk;
  }

  int result = kOk;
  if (history_.size() > conf.rahit) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Since  histsize: %d while conf.rahit: %uld, go read-ahead!",
             tag.c_str(), static_cast<int>(history_.size()), static_cast<unsigned>(conf.rahit));
    // The block ends on a sector boundary (or the end of the file): a block
    // ending inside a sector would leave it settled short, and later reads
    // would stop there as if the file ended.
    const long long to_end = origin_size_ - empty_offset;
    long long size = std::min({ladder_[static_cast<size_t>(ladder_position_ - 1)], ramax, to_end});
    size = std::min((size + kSectorSize - 1) / kSectorSize * kSectorSize, to_end);
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead from %lld, %lld bytes", tag.c_str(), empty_offset, size);
    ReserveNoLock(empty_offset, size);
    auto* task = new AsyncLargeFetch(this, rd->fetch, empty_offset, size, rd->handle, false);
    read_ahead_.store(task);
    QueueAsync(task, nullptr);  // may run, and free, the task right here
    ladder_position_ = std::min(ladder_position_ + 1, static_cast<int>(ladder_.size()));
    result = static_cast<int>(kFetchQueued);
  } else {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] histsize: %d but conf.rahit: %lu, no read-ahead this time.",
             tag.c_str(), static_cast<int>(history_.size()), static_cast<unsigned long>(conf.rahit));
  }
  RecordRead(this_read);
  return result;
}

void ReadonlyCache::RecordRead(const _READHISTORY& entry) {
  if (history_.empty()) ladder_position_ = 1;  // a new stream starts small again
  history_.push_back(entry);
  while (history_.size() > kHistoryLength) history_.pop_front();
}

long long ReadonlyCache::GetLargestEmptyOffset(long long offset) {
  std::lock_guard<std::mutex> guard(index_lock_);
  return LargestEmptyOffsetNoLock(offset);
}

long long ReadonlyCache::LargestEmptyOffsetNoLock(long long offset) {
  const long long s = SectorOf(offset);
  const _CACHECONFIG conf = GetConfig();
  auto it = sectors_.find(s);
  if (it == sectors_.end()) return s;

  const std::string tag = GetFileName();
  if (empty_sectors_.empty()) {
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] At %s, empty_sectors_ is empty.", tag.c_str(),
             "GetLargestEmptyOffset");
  } else {
    KORV_LOG(LOGLEVEL_INFO,
             "[CACHE     ] [%s] At %s, size of empty_sectors_ is %d, the first sector is %lld and the last one is "
             "%lld.",
             tag.c_str(), "GetLargestEmptyOffset", static_cast<int>(empty_sectors_.size()), empty_sectors_.front(),
             empty_sectors_.back());
  }
  const long long limit = offset + static_cast<long long>(conf.ramax);
  long long prev = s;
  for (++it; it != sectors_.end(); ++it) {
    if (it->first != prev + kSectorSize) return prev;
    if (it->first > limit) return -1;
    prev = it->first;
  }
  return prev;
}
