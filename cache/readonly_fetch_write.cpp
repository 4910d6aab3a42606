// Fetch writes of ReadonlyCache: fetched bytes placed in their slots of the
// cache file, each slot whole (a short last sector is zero padded).
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "common/file_io.h"

int ReadonlyCache::FetchWrite(long long offset, const char* data, long length, long* written) {
  MutexLock guard(index_lock_);
  return FetchWriteNoLock(offset, data, length, written);
}

int ReadonlyCache::StoreFetched(long long offset, const char* data, long length, long* written, IndexLock lock) {
  if (lock == IndexLock::kHeld) return FetchWriteNoLock(offset, data, length, written);
  return FetchWrite(offset, data, length, written);
}

int ReadonlyCache::FetchWriteNoLock(long long offset, const char* data, long length, long* written) {
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Fetch write : %p, %lld, %d", tag.c_str(),
           static_cast<const void*>(data), offset, static_cast<int>(length));
  std::shared_ptr<FILE> stream = OpenStream(true);
  if (!stream) return static_cast<int>(kErrRead);

  long long sector_offset = SectorOf(offset);
  long long total = 0;
  bool first = true;
  while (length > 0) {
    const long long chunk = std::min(static_cast<long long>(length), kSectorSize);
    if (first && offset % kSectorSize != 0 && index_.Find(sector_offset) == nullptr) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : Cache offset was not aligned", tag.c_str());
      return static_cast<int>(kErrUnaligned);
    }
    const SectorIndex::Placement placed =
        index_.PlaceFetched(sector_offset, chunk, SteadyNow(), [this] { return FileLength(true); });
    // `appended`: the slot is the end of the file, claimed by this write.
    const bool appended = placed.appended;
    switch (placed.was) {
      case SectorIndex::Placed::kNew:
        KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Fetch write : %lld", tag.c_str(), sector_offset);
        if (appended) {
          KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Fetch write : Empty sector not found. Append cache on %lld.",
                   tag.c_str(), placed.sector->cache_offset);
        } else {
          KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Fetch write : Empty sector found on %lld", tag.c_str(),
                   placed.sector->cache_offset);
        }
        break;
      case SectorIndex::Placed::kReserved:
        KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Fetch write : Sector %lld reserved and write on %lld",
                 tag.c_str(), sector_offset, placed.sector->cache_offset);
        break;
      case SectorIndex::Placed::kSettled:
        KORV_LOG(LOGLEVEL_DEBUG,
                 "[CACHE     ] [%s] Fetch write : Sector %lld not reserved. Data will be overwritten on current "
                 "cache %lld",
                 tag.c_str(), sector_offset, placed.sector->cache_offset);
        break;
    }
    _SECTOR& sector = *placed.sector;
    // Until the slot is completely written its bytes are not the origin's:
    // keep readers off it, also when the write fails half way.
    sector.reserved = true;
    {
      MutexLock guard(file_lock_);
      FileIo& io = CacheFileIo();
      bool failed = io.Seek(stream.get(), sector.cache_offset) != 0;
      if (!failed) {
        size_t put = io.Write(stream.get(), data, static_cast<size_t>(chunk));
        failed = put != static_cast<size_t>(chunk);
        if (!failed && chunk < kSectorSize) {
          size_t pad = static_cast<size_t>(kSectorSize - chunk);
          failed = io.Write(stream.get(), tempbuffer, pad) != pad;
        }
        // A full disk may only show when the buffer goes out.
        failed = failed || io.Flush(stream.get()) != 0;
      }
      if (failed) {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(errno));
        clearerr(stream.get());
        if (appended) {
          // The file did not grow by a whole slot: give the end back, so the
          // next append does not land in the same slot as this sector.
          if (io.Truncate(stream.get(), sector.cache_offset) != 0) {
            // Nothing more to undo; the sector stays reserved without a slot.
          }
          sector.cache_offset = -1;
        }
        return static_cast<int>(kErrFileWrite);
      }
    }
    sector.reserved = false;
    IndexChangedNoLock();
    data += chunk;
    total += chunk;
    length -= static_cast<long>(chunk);
    sector_offset += kSectorSize;
    first = false;
  }
  {
    // Every transfer seeks first, so this position means nothing; a stream
    // that cannot seek any more is reported all the same.
    MutexLock guard(file_lock_);
    if (CacheFileIo().Seek(stream.get(), sector_offset) != 0) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(errno));
      return static_cast<int>(kErrFileWrite);
    }
  }
  if (written != nullptr) *written = static_cast<long>(total);
  return kOk;
}
