// Eviction of ReadonlyCache: drops sectors not read for long enough, moves
// the highest slots down into the freed ones, cuts free slots off the end of
// the file and deletes the file once nothing is left in it.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "cache/compaction_plan.h"
#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "common/file_io.h"

void ReadonlyCache::ClearOldCache(bool over_quota) {
  std::lock_guard<std::mutex> index(index_lock_);
  const SteadyTime now = SteadyNow();
  const _CACHECONFIG conf = GetConfig();
  const uint64_t max_used_age = over_quota ? conf.clroverused : conf.clrused;
  const uint64_t max_unused_age = over_quota ? conf.clroverunused : conf.clrunused;

  std::vector<long long> selected;
  for (const auto& entry : sectors_) {
    const _SECTOR& sector = entry.second;
    if (sector.reserved) continue;  // a fetch is under way
    // Compared unsigned, so an access time in the future counts as very old.
    const auto age = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(now - sector.access_time).count());
    // Any sector old enough goes, whether or not it was ever read.
    if ((sector.hits > 0 && age > max_used_age) || age > max_unused_age) selected.push_back(entry.first);
  }
  if (selected.empty()) return;
  std::shared_ptr<FILE> stream = OpenStream(true);
  if (!stream) return;

  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] ClearOldCache : %d sector(s) will clear(total %d sector(s))",
           tag.c_str(), static_cast<int>(selected.size()), static_cast<int>(sectors_.size()));
  for (long long offset : selected) {
    auto it = sectors_.find(offset);
    // Opening the stream finds the file deleted behind our back, if it was,
    // and drops the sectors whose slots went with it.
    if (it == sectors_.end()) continue;
    if (it->second.cache_offset != -1) empty_sectors_.push_back(it->second.cache_offset);
    sectors_.erase(it);
  }
  const long long old_size = FileLength(true);
  std::sort(empty_sectors_.begin(), empty_sectors_.end());

  std::vector<_SECTOR_USING> kept;
  kept.reserve(sectors_.size());
  for (const auto& entry : sectors_) kept.push_back({entry.first, entry.second.cache_offset});
  std::vector<char> buffer(static_cast<size_t>(kSectorSize));
  for (const SlotMove& move : PlanSlotMoves(std::move(kept), empty_sectors_)) {
    // The plan takes the free slots in the order this loop frees them, so
    // each move's target is the front of the free list.
    empty_sectors_.pop_front();
    _SECTOR& sector = sectors_[move.offset];
    std::lock_guard<std::mutex> file(file_lock_);
    FileIo& io = CacheFileIo();
    if (io.Seek(stream.get(), move.from) != 0) break;
    const long long read = io.Read(stream.get(), buffer.data(), static_cast<size_t>(sector.size));
    if (read < 0) {
      clearerr(stream.get());
      break;
    }
    const size_t got = static_cast<size_t>(read);
    if (io.Seek(stream.get(), move.to) != 0) break;
    size_t put = io.Write(stream.get(), buffer.data(), got);
    if (put != got || io.Flush(stream.get()) != 0) {
      // The sector stays where it was; its old slot still holds its bytes.
      clearerr(stream.get());
      break;
    }
    empty_sectors_.push_back(move.from);
    sector.cache_offset = move.to;
  }
  buffer = std::vector<char>();

  const long long length = FileLength(true);
  const long long cut_at = CutFreeTail(&empty_sectors_, length);
  if (cut_at < length) {
    std::lock_guard<std::mutex> file(file_lock_);
    if (CacheFileIo().Flush(stream.get()) != 0 || CacheFileIo().Truncate(stream.get(), cut_at) != 0) {
      int error = errno;
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Truncate failed : %s(%d)", tag.c_str(), strerror(error), error);
    }
  }
  stream.reset();
  std::sort(empty_sectors_.begin(), empty_sectors_.end());

  const long long new_size = FileLength(true);
  if (new_size == 0) {
    handle_.Close();
    CacheFileIo().Remove(cache_path_);
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] ClearOldCache : OK, %lld => %lld(Deleted)", tag.c_str(), old_size,
             0LL);
  } else {
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] ClearOldCache : OK, %lld => %lld", tag.c_str(), old_size, new_size);
  }
}
