// Fetch writes of ReadonlyCache: fetched bytes placed at their own offsets in
// their sectors' slots. A sector stays reserved, and readers wait, until it
// holds every byte it should: 512 KiB, or up to the end of the origin.
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
  if (length < 0 || !ValidRange(offset, static_cast<unsigned long long>(length)) ||
      (data == nullptr && length > 0)) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(EINVAL));
    return static_cast<int>(kErrFileWrite);
  }
  std::shared_ptr<FILE> stream = OpenStream(true);
  if (!stream) return static_cast<int>(kErrRead);
  ForgetKeptIndexNoLock();

  long long total = 0;
  bool first = true;
  while (length > 0) {
    const long long sector_offset = SectorOf(offset);
    const long long in_sector = offset - sector_offset;
    const long long chunk = std::min(static_cast<long long>(length), kSectorSize - in_sector);
    // What the sector holds once complete: a whole sector, or up to the end
    // of the origin. A delivery for a sector the origin's size does not
    // reach counts as complete as far as it goes.
    const long long expected =
        origin_size_ > sector_offset ? std::min(kSectorSize, origin_size_ - sector_offset) : in_sector + chunk;
    const _SECTOR* before = index_.Find(sector_offset);
    if (before == nullptr && in_sector != 0 && first) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : Cache offset was not aligned", tag.c_str());
      return static_cast<int>(kErrUnaligned);
    }
    // A piece of a sector nobody asked for, which does not fill it: keeping
    // it would need a reservation that no fetch completes or clears.
    if (before == nullptr && (in_sector != 0 || chunk < expected)) {
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Fetch write : sector %lld not reserved, %lld bytes not kept",
               tag.c_str(), sector_offset, chunk);
      offset += chunk;
      data += chunk;
      length -= static_cast<long>(chunk);
      first = false;
      continue;
    }
    const bool was_settled = before != nullptr && !before->reserved;
    const long long stored_before = before == nullptr ? 0 : (was_settled ? before->size : before->filled);
    // Slots are appended at whole-slot positions: the file may end inside
    // its last slot, which holds only the bytes that arrived.
    const SectorIndex::Placement placed = index_.PlaceFetched(
        sector_offset, chunk, SteadyNow(), [this] { return RoundUpToSlot(FileLength(true)); });
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
    // Until the bytes are written they are not the origin's: keep readers
    // off the sector, also when the write fails half way.
    sector.reserved = true;
    sector.filled = stored_before;
    {
      MutexLock guard(file_lock_);
      FileIo& io = CacheFileIo();
      bool failed = io.Seek(stream.get(), sector.cache_offset + in_sector) != 0;
      if (!failed) {
        failed = io.Write(stream.get(), data, static_cast<size_t>(chunk)) != static_cast<size_t>(chunk);
        // A full disk may only show when the buffer goes out.
        failed = failed || io.Flush(stream.get()) != 0;
      }
      if (failed) {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(errno));
        clearerr(stream.get());
        if (appended) {
          // The slot was not written: give the end back, so the next append
          // does not land in the same slot as this sector.
          if (io.Truncate(stream.get(), sector.cache_offset) != 0) {
            // Nothing more to undo; the sector stays reserved without a slot.
          }
          sector.cache_offset = -1;
          sector.filled = 0;
        }
        ReportStoredNoLock();
        return static_cast<int>(kErrFileWrite);
      }
    }
    // Bytes count from the slot start on, without a gap: a piece that
    // arrives ahead of its predecessor is written but not yet counted.
    if (in_sector <= sector.filled) sector.filled = std::max(sector.filled, in_sector + chunk);
    if (was_settled) {
      sector.size = sector.filled;
      sector.reserved = false;
    } else if (sector.filled >= expected) {
      sector.size = expected;
      sector.reserved = false;
    }
    if (!sector.reserved) {
      sector.filled = 0;
      // Summed up now when the bytes came whole; otherwise when the file is
      // kept. A kept sector written in part keeps its old checksum, which
      // its check then fails: it is fetched again rather than trusted.
      if (in_sector == 0 && chunk == sector.size) {
        sector.checksum = SectorChecksum(data, static_cast<size_t>(chunk));
        sector.checksum_known = true;
        sector.unverified = false;
      } else if (!sector.unverified) {
        sector.checksum_known = false;
      }
      IndexChangedNoLock();
    }
    offset += chunk;
    data += chunk;
    total += chunk;
    length -= static_cast<long>(chunk);
    first = false;
  }
  ReportStoredNoLock();
  {
    // Every transfer seeks first, so this position means nothing; a stream
    // that cannot seek any more is reported all the same.
    MutexLock guard(file_lock_);
    if (CacheFileIo().Seek(stream.get(), SectorOf(offset)) != 0) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(errno));
      return static_cast<int>(kErrFileWrite);
    }
  }
  if (written != nullptr) *written = static_cast<long>(total);
  return kOk;
}
