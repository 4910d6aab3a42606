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

namespace {

// Copies the `size` bytes of the slot at `from` to the slot at `to`. False
// when any step failed.
bool CopySlot(FILE* stream, long long from, long long to, long long size, std::vector<char>* buffer) {
  FileIo& io = CacheFileIo();
  if (io.Seek(stream, from) != 0) return false;
  const long long read = io.Read(stream, buffer->data(), static_cast<size_t>(size));
  if (read < 0 || io.Seek(stream, to) != 0) return false;
  const size_t got = static_cast<size_t>(read);
  return io.Write(stream, buffer->data(), got) == got && io.Flush(stream) == 0;
}

}  // namespace

void ReadonlyCache::ClearOldCache(bool over_quota) {
  MutexLock index(index_lock_);
  const SteadyTime now = SteadyNow();
  const _CACHECONFIG conf = GetConfig();
  const uint64_t max_used_age = over_quota ? conf.clroverused : conf.clrused;
  const uint64_t max_unused_age = over_quota ? conf.clroverunused : conf.clrunused;

  // Any sector old enough goes, whether or not it was ever read.
  DropSectorsNoLock(index_.SelectOld(now, max_used_age, max_unused_age));
}

std::vector<SectorAge> ReadonlyCache::SectorAges() {
  MutexLock index(index_lock_);
  return index_.SettledAges();
}

void ReadonlyCache::DropReadBefore(SteadyTime cutoff) {
  MutexLock index(index_lock_);
  DropSectorsNoLock(index_.SelectReadBefore(cutoff));
}

void ReadonlyCache::DropSectorsNoLock(const std::vector<long long>& selected) {
  if (selected.empty()) return;
  std::shared_ptr<FILE> stream = OpenStream(true);
  if (!stream) return;
  ForgetKeptIndexNoLock();  // slots move, the file is cut

  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] ClearOldCache : %d sector(s) will clear(total %d sector(s))",
           tag.c_str(), static_cast<int>(selected.size()), static_cast<int>(index_.size()));
  // Opening the stream finds the file deleted behind our back, if it was,
  // and drops the sectors whose slots went with it: Drop skips those.
  for (long long offset : selected) index_.Drop(offset);
  IndexChangedNoLock();
  const long long old_size = FileLength(true);
  index_.SortFreeSlots();

  std::vector<char> buffer(static_cast<size_t>(kSectorSize));
  for (const SlotMove& move : PlanSlotMoves(index_.Kept(), index_.free_slots())) {
    // Each move's target is the lowest free slot; a move that fails half way
    // leaves that slot unreliable, so it is not used again.
    const _SECTOR& sector = *index_.Find(move.offset);
    MutexLock file(file_lock_);
    if (!CopySlot(stream.get(), move.from, move.to, sector.reserved ? sector.filled : sector.size, &buffer)) {
      // The sector stays where it was; its old slot still holds its bytes.
      clearerr(stream.get());
      index_.RetireLowestFreeSlot();
      break;
    }
    index_.Move(move.offset, move.to);
  }
  buffer = std::vector<char>();

  const long long length = FileLength(true);
  const long long cut_at = CutFreeTail(index_.mutable_free_slots(), length);
  if (cut_at < length) {
    MutexLock file(file_lock_);
    if (CacheFileIo().Flush(stream.get()) != 0 || CacheFileIo().Truncate(stream.get(), cut_at) != 0) {
      int error = errno;
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Truncate failed : %s(%d)", tag.c_str(), strerror(error), error);
    }
  }
  stream.reset();

  const long long new_size = FileLength(true);
  ReportStoredNoLock();
  if (new_size == 0) {
    handle_.Close();
    CacheFileIo().Remove(cache_path_);
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] ClearOldCache : OK, %lld => %lld(Deleted)", tag.c_str(), old_size,
             0LL);
  } else {
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] ClearOldCache : OK, %lld => %lld", tag.c_str(), old_size, new_size);
  }
}
