// Keeping a sector cache file for the next run, and taking over one an
// earlier run kept: the index written at the end, read back at the start,
// and the sectors checked against their checksums before they are served.
#include <algorithm>
#include <vector>

#include "cache/file_names.h"
#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "common/file_io.h"

ReadonlyCache::ReadonlyCache(std::string cache_dir, const std::string& name, FoundFile found, ICacheConfig* config)
    : cache_dir_(std::move(cache_dir)),
      file_name_(TagFromName(name)),
      cache_path_(found.cache_path),
      handle_(cache_path_),
      origin_size_(found.index.origin_size),
      config_(config),
      read_ahead_policy_(ReadAheadFor(config)),
      stored_(MeterOf(config)),
      meter_(MeterOf(config)) {
  file_created_.store(true, std::memory_order_relaxed);
  MutexLock guard(index_lock_);
  for (const KeptSector& s : found.index.sectors) {
    // A slot the file does not reach lost its bytes.
    if (s.slot + s.size > found.file_length) continue;
    index_.AddKept(s.offset, s.slot, s.size, s.hits, SteadyTimeOf(s.access_wall), s.checksum);
  }
  index_.FreeUnusedSlots(found.file_length);
  kept_index_path_ = found.index_path;
  ReportStoredNoLock();
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read only cache initialized with %d kept sector(s) : %s",
           file_name_.c_str(), static_cast<int>(index_.size()), cache_path_.c_str());
}

void ReadonlyCache::ForgetKeptIndexNoLock() {
  if (kept_index_path_.empty()) return;
  RemoveKeptIndex(kept_index_path_);
  kept_index_path_.clear();
}

void ReadonlyCache::VerifyKeptNoLock(long long start, long long end, FILE* stream) {
  const std::vector<long long> unverified = index_.UnverifiedIn(start, end);
  if (unverified.empty()) return;
  std::vector<char> buffer(static_cast<size_t>(kSectorSize));
  bool dropped = false;
  for (long long offset : unverified) {
    _SECTOR& sector = *index_.Find(offset);
    const long long got = CacheFileIo().ReadAt(stream, buffer.data(), static_cast<size_t>(sector.size),
                                               sector.cache_offset);
    if (got == sector.size && SectorChecksum(buffer.data(), static_cast<size_t>(got)) == sector.checksum) {
      sector.unverified = false;
      continue;
    }
    KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] [%s] Kept sector %lld does not match its checksum: fetched again",
             GetFileName().c_str(), offset);
    index_.Drop(offset);
    dropped = true;
  }
  if (dropped) IndexChangedNoLock();
}

bool ReadonlyCache::Keep(const std::string& name, const std::string& version) {
  WaitForTasks();
  MutexLock guard(index_lock_);
  if (kept_) return true;
  if (!WriteIndexNoLock(name, version)) return false;
  kept_ = true;
  handle_.Close();
  return true;
}

bool ReadonlyCache::WriteIndex(const std::string& name, const std::string& version) {
  WaitForTasks();
  MutexLock guard(index_lock_);
  return !kept_ && WriteIndexNoLock(name, version);
}

bool ReadonlyCache::WriteIndexNoLock(const std::string& name, const std::string& version) {
  std::shared_ptr<FILE> stream = file_created_.load(std::memory_order_relaxed) ? OpenStream(true) : nullptr;
  if (!stream) return false;
  KeptIndex kept{name, version, origin_size_, WallNanosOf(SteadyNow()), {}};
  std::vector<char> buffer;
  index_.ForEachSettled([&](long long offset, _SECTOR& sector) {
    // Sectors whose bytes came in pieces are summed up now, from the file.
    if (!sector.checksum_known) {
      buffer.resize(static_cast<size_t>(kSectorSize));
      const long long got =
          CacheFileIo().ReadAt(stream.get(), buffer.data(), static_cast<size_t>(sector.size), sector.cache_offset);
      if (got != sector.size) return;
      sector.checksum = SectorChecksum(buffer.data(), static_cast<size_t>(got));
      sector.checksum_known = true;
    }
    kept.sectors.push_back(
        {offset, sector.cache_offset, sector.size, sector.hits, WallNanosOf(sector.access_time), sector.checksum});
  });
  if (kept.sectors.empty()) return false;
  // The bytes first: an index must never describe slots still in flight.
  if (CacheFileIo().Sync(stream.get()) != 0) return false;
  const std::string index_path = KeptIndexPathOf(cache_path_);
  if (!WriteKeptIndex(index_path, EncodeKeptIndex(kept))) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Cache index could not be written : %s", GetFileName().c_str(),
             index_path.c_str());
    return false;
  }
  kept_index_path_ = index_path;
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read only cache kept with %d sector(s) : %s", GetFileName().c_str(),
           static_cast<int>(kept.sectors.size()), cache_path_.c_str());
  return true;
}

void ReadonlyCache::ReuseFor(long long origin_size, bool same_version) {
  MutexLock guard(index_lock_);
  if (same_version && origin_size == origin_size_) return;
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Kept cache is of another version or size: dropped",
           GetFileName().c_str());
  ForgetKeptIndexNoLock();
  std::vector<long long> all;
  index_.ForEachSettled([&](long long offset, _SECTOR&) { all.push_back(offset); });
  DropSectorsNoLock(all);
  origin_size_ = origin_size;
}
