// WritableCache: the whole file as one local file, holes fetched on demand.
#include "cache/writable_cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <utility>

#include "cache/default_settings.h"
#include "cache/file_names.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "common/test_point.h"
#include "cache/sector.h"
#include "cache/sync_fetch_for_writable_cache.h"
#include "common/split.h"

namespace {


// Splits `name` at its last dot. A name without a dot is all extension and no
// stem, so its numbered forms are "[0].noext", ...: numbered names of other
// builds of this cache look the same, and the rule is kept for that.
void StemAndExtension(const std::string& name, std::string* stem, std::string* extension) {
  std::vector<std::string> parts = split(name, '.');
  *extension = parts.empty() ? std::string() : parts.back();
  stem->clear();
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    if (i > 0) *stem += ".";
    *stem += parts[i];
  }
}

// The first path under `dir` not taken by a file or directory: name itself,
// then stem[0].extension, stem[1].extension, ... Anything else that exists
// there (a socket, a fifo) is used as it is.
std::string FreePath(const std::string& dir, const std::string& name) {
  std::string path = dir + name;
  if (!IsFileOrDirectory(path)) return path;
  std::string stem;
  std::string extension;
  StemAndExtension(name, &stem, &extension);
  for (unsigned long long n = 0;; ++n) {
    path = dir + stem + "[" + std::to_string(n) + "]." + extension;
    if (!IsFileOrDirectory(path)) return path;
  }
}

}  // namespace

WritableCache::WritableCache(std::string cache_dir, std::string name, long long size, IFetch*,
                             ICacheConfig* config)
    : cache_dir_(std::move(cache_dir)),
      file_name_(TagFromName(name)),
      cache_path_(FreePath(cache_dir_, file_name_)),
      file_size_(size),
      origin_end_(size),
      config_(config),
      stored_(MeterOf(config)) {
  fp_ = CacheFileIo().Open(cache_path_, "w+");
  if (fp_ == nullptr) {
    int error = errno;
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] Cache creation has failed : %s(%x)", cache_path_.c_str(),
             static_cast<unsigned int>(error));
    throw AERROR{kErrCreateFile};
  }
  for (long long s = 0; s < size; s += kSectorSize) empty_sectors_.push_back(s);
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Writable cache created", file_name_.c_str());
}

WritableCache::~WritableCache() { Close(true); }

std::string WritableCache::GetFileName() const {
  MutexLock guard(name_lock_);
  return file_name_;
}

void WritableCache::ChangeFileName(std::string new_name) {
  MutexLock guard(name_lock_);
  file_name_ = std::move(new_name);
}

std::vector<long long> WritableCache::HolesIn(long long from, long long to) const {
  auto first = std::lower_bound(empty_sectors_.begin(), empty_sectors_.end(), from);
  auto last = std::lower_bound(first, empty_sectors_.end(), std::max(from, to));
  return std::vector<long long>(first, last);
}

void WritableCache::EraseHoles(long long from, long long to) {
  auto first = std::lower_bound(empty_sectors_.begin(), empty_sectors_.end(), from);
  auto last = std::lower_bound(first, empty_sectors_.end(), std::max(from, to));
  empty_sectors_.erase(first, last);
}

void WritableCache::GrowToPhysicalLength() {
  long long physical = GetFileSize();
  long long current = file_size_.load(std::memory_order_relaxed);
  while (physical > current &&
         !file_size_.compare_exchange_weak(current, physical, std::memory_order_relaxed)) {
  }
}

unsigned int WritableCache::FetchEmptySectors(const std::vector<long long>& sectors, IFetch* fetch,
                                      const std::shared_ptr<_FS_HANDLE>& handle) {
  // Adjacent holes become one origin request. Runs never overlap, so the only
  // run that can end at s is the one starting last before it.
  std::map<long long, long> runs;
  for (long long s : sectors) {
    auto next = runs.lower_bound(s);
    if (next != runs.begin()) {
      auto previous = std::prev(next);
      if (previous->first + previous->second == s) {
        previous->second += static_cast<long>(kSectorSize);
        continue;
      }
    }
    runs.emplace(s, static_cast<long>(kSectorSize));
  }
  // A failed run leaves its holes in place; Process has logged it, and the
  // other runs are still worth fetching.
  bool complete = true;
  store_failed_ = false;
  for (const auto& run : runs) {
    fetching_from_ = run.first;
    fetching_to_ = run.first + run.second;
    fetched_to_ = run.first;
    SyncFetchForWritableCache task(this, fetch, run.first, run.second, handle);
    task.Process();
    // A sector is filled when its bytes arrived up to its end, or up to the
    // end of the origin's bytes; whatever came after a gap does not count.
    const long long filled_to = fetched_to_ >= origin_end_ ? fetching_to_ : SectorOf(fetched_to_);
    EraseHoles(run.first, filled_to);
    complete = complete && filled_to >= fetching_to_;
  }
  fetching_from_ = -1;
  fetching_to_ = -1;
  fetched_to_ = -1;
  stored_.Set(std::max(0LL, CacheFileIo().DiskBytesAt(cache_path_)));
  if (complete) return kOk;
  return store_failed_ ? kErrFileWrite : kErrRead;
}

unsigned int WritableCache::Read(_READDATA* rd) {
  if (rd == nullptr) return kErrInvalidArgument;
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Read : %p, %lld, %d", tag.c_str(),
           static_cast<void*>(rd->buffer), rd->offset, static_cast<int>(rd->size));
  // Reported as the failed seek such a range would be.
  if (!ValidRange(rd->offset, rd->size)) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : %s", tag.c_str(), strerror(EINVAL));
    return kErrFileRead;
  }
  if (rd->buffer == nullptr && rd->size > 0) return kErrInvalidArgument;
  const _CACHECONFIG conf = config_ != nullptr ? config_->GetConfig() : kDefaultCacheConfig;
  if (rd->timeout == 0) rd->timeout = static_cast<long long>(conf.readtimeout);
  const long long end = rd->offset + static_cast<long long>(rd->size);

  if (rd->fetch != nullptr) {
    MutexLock guard(index_lock_);
    if (rd->offset < file_size_.load(std::memory_order_relaxed)) {
      // Holes the read covers whole are fetched too: the local file has
      // nothing there but zeros.
      std::vector<long long> holes = HolesIn(SectorOf(rd->offset), end);
      if (!holes.empty() && FetchEmptySectors(holes, rd->fetch, rd->handle) != kOk) {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : the origin's bytes could not be fetched",
                 tag.c_str());
        return kErrRead;
      }
    }
  }

  size_t count = 0;
  int error = 0;
  unsigned int result = kOk;
  {
    MutexLock guard(file_lock_);
    // Closed with deletion or handed to a read-only cache.
    if (fp_ == nullptr) return kErrRead;
    if (CacheFileIo().Seek(fp_, rd->offset) != 0) {
      error = errno;
      result = kErrFileRead;
    } else {
      const long long got = CacheFileIo().Read(fp_, rd->buffer, rd->size);
      // A short count at the end of the local file is no failure.
      if (got < 0) {
        error = errno;
        result = kErrRead;
      } else {
        count = static_cast<size_t>(got);
      }
      clearerr(fp_);
    }
  }
  if (result != kOk) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : %s", tag.c_str(), strerror(error));
    return result;
  }
  rd->transferred = count;
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Read done : %p, %lld, %d/%d", tag.c_str(),
           static_cast<void*>(rd->buffer), rd->offset, static_cast<int>(rd->size),
           static_cast<int>(count));
  return kOk;
}

unsigned int WritableCache::Write(_WRITEDATA* wd) {
  if (wd == nullptr) return kErrInvalidArgument;
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Write : %p, %lld, %d", tag.c_str(),
           static_cast<const void*>(wd->buffer), wd->offset, static_cast<int>(wd->size));
  // Reported as the failed seek such a range would be.
  if (!ValidRange(wd->offset, wd->size)) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Write failed : %s", tag.c_str(), strerror(EINVAL));
    return kErrFileWrite;
  }
  if (wd->buffer == nullptr && wd->size > 0) return kErrInvalidArgument;
  const long long offset = wd->offset;
  const long long end = offset + static_cast<long long>(wd->size);

  // Held through the write and the erasing of its holes: a read that found
  // a hole here in between would fetch it over the bytes just written.
  MutexLock index_guard(index_lock_);
  // A write of the whole file leaves nothing of the origin's worth keeping.
  const bool whole_file = offset == 0 && end == wd->file_size;
  if (wd->fetch != nullptr && !whole_file) {
    // Only the sectors the write covers in part need their origin bytes,
    // also when the write starts at or past the end of the file inside one:
    // the bytes before it are the origin's. The tail is the sector of the
    // end offset, not of the last byte written: a write ending on a sector
    // boundary also fetches the sector that starts there. That costs one
    // sector but is how every build of this cache has behaved, so it stays.
    const long long head = SectorOf(offset);
    const long long tail = SectorOf(end);
    auto partly_covered = [&](long long s) REQUIRES(index_lock_) {
      return std::binary_search(empty_sectors_.begin(), empty_sectors_.end(), s) &&
             !(offset <= s && end >= s + kSectorSize);
    };
    std::vector<long long> holes;
    if (partly_covered(head)) holes.push_back(head);
    if (tail != head && partly_covered(tail)) holes.push_back(tail);
    const unsigned int fetched = holes.empty() ? kOk : FetchEmptySectors(holes, wd->fetch, wd->handle);
    if (fetched != kOk) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Write failed : the origin's bytes could not be fetched",
               tag.c_str());
      return fetched;
    }
  }

  size_t count = 0;
  int error = 0;
  bool failed = false;
  {
    MutexLock guard(file_lock_);
    // Closed with deletion or handed to a read-only cache.
    if (fp_ == nullptr) return kErrFileWrite;
    if (CacheFileIo().Seek(fp_, offset) != 0) {
      error = errno;
      failed = true;
    } else {
      count = CacheFileIo().Write(fp_, wd->buffer, wd->size);
      // A full disk shows as a short count, or only when the buffer goes
      // out: flushed here, or the bytes would be lost after a success.
      if (count != wd->size || CacheFileIo().Flush(fp_) != 0) {
        error = errno;
        failed = true;
      }
      clearerr(fp_);
    }
  }
  if (failed) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Write failed : %s", tag.c_str(), strerror(error));
    return kErrFileWrite;
  }
  wd->transferred = count;
  KORV_TEST_POINT("writable cache: written, holes not yet erased");
  EraseHoles(SectorOf(offset), end);
  GrowToPhysicalLength();
  stored_.Set(std::max(0LL, CacheFileIo().DiskBytesAt(cache_path_)));
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Write done : %p, %lld, %d/%d", tag.c_str(),
           static_cast<const void*>(wd->buffer), offset, static_cast<int>(wd->size),
           static_cast<int>(count));
  return kOk;
}

int WritableCache::FetchWrite(long long offset, const char* data, long length, long* written) {
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] FetchWrite : %p, %lld, %d", tag.c_str(),
           static_cast<const void*>(data), offset, static_cast<int>(length));
  if (offset < 0 || length < 0 || (data == nullptr && length > 0)) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(EINVAL));
    return static_cast<int>(kErrFileWrite);
  }
  // Only the run being fetched is stored: bytes an origin sends beyond it
  // would land where the local file may hold the client's own writes.
  if (fetching_to_ >= 0) {
    const long long from = std::max(offset, fetching_from_);
    const long long to = std::min({offset + static_cast<long long>(length), fetching_to_, origin_end_});
    if (from >= to) {
      if (written != nullptr) *written = 0;
      return static_cast<int>(kOk);
    }
    data += from - offset;
    length = static_cast<long>(to - from);
    offset = from;
  }
  size_t count = 0;
  int error = 0;
  bool failed = false;
  {
    MutexLock guard(file_lock_);
    if (fp_ == nullptr) return static_cast<int>(kErrFileWrite);
    if (CacheFileIo().Seek(fp_, offset) != 0) {
      error = errno;
      failed = true;
    } else {
      count = CacheFileIo().Write(fp_, data, static_cast<size_t>(length));
      // Stored only when all of it is on disk: a hole filled in part must
      // stay a hole.
      if (count != static_cast<size_t>(length) || CacheFileIo().Flush(fp_) != 0) {
        error = errno;
        failed = true;
      }
      clearerr(fp_);
    }
  }
  if (failed) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(error));
    store_failed_ = true;
    return static_cast<int>(kErrFileWrite);
  }
  if (written != nullptr) *written = static_cast<long>(count);
  GrowToPhysicalLength();
  // No lock of our own: the thread that started this fetch holds index_lock_
  // for its whole length. The holes are erased when the run ends, for the
  // sectors whose bytes all arrived (FetchEmptySectors).
  if (fetching_to_ >= 0 && offset <= fetched_to_) {
    fetched_to_ = std::max(fetched_to_, offset + static_cast<long long>(length));
  }
  return static_cast<int>(kOk);
}

unsigned int WritableCache::FillEmptySectors(IFetch* fetch) {
  if (fetch == nullptr) return kErrInvalidArgument;
  MutexLock guard(index_lock_);
  // The cache's own handle: type 2 marks whole-file fetches of the cache,
  // state 1 an open handle. The fetcher names it.
  auto handle = std::make_shared<_FS_HANDLE>(_FS_HANDLE{2, 1, 0, std::string()});
  handle->info = fetch->HandleInfo(handle.get());
  if (!empty_sectors_.empty()) {
    // A copy: the holes of each run are erased once it has arrived.
    std::vector<long long> holes(empty_sectors_.begin(), empty_sectors_.end());
    // Reported, so that a caller about to upload or convert the file knows
    // it does not hold the origin's bytes everywhere.
    return FetchEmptySectors(holes, fetch, handle);
  }
  return kOk;
}

unsigned int WritableCache::Truncate(long long length) {
  MutexLock guard(index_lock_);
  {
    MutexLock file_guard(file_lock_);
    // Flush first: bytes still buffered in the stream would otherwise land
    // after the cut and grow the file again.
    if (fp_ == nullptr || CacheFileIo().Flush(fp_) != 0 || CacheFileIo().Truncate(fp_, length) != 0) {
      return kErrFileWrite;
    }
  }
  const long long old_size = file_size_.load(std::memory_order_relaxed);
  origin_end_ = std::min(origin_end_, length);
  // The sector holding the new end keeps its hole: its first bytes are still
  // the origin's.
  if (old_size > length) EraseHoles(SectorOf(length) + kSectorSize, old_size);
  // Bytes added by growing are the local file's zeros, not holes.
  file_size_.store(length, std::memory_order_relaxed);
  stored_.Set(std::max(0LL, CacheFileIo().DiskBytesAt(cache_path_)));
  return kOk;
}

unsigned int WritableCache::Close(bool remove) {
  delete_on_close_.store(remove, std::memory_order_relaxed);
  MutexLock guard(index_lock_);
  if (!delete_on_close_.load(std::memory_order_relaxed)) return kOk;
  FILE* stream;
  {
    MutexLock file_guard(file_lock_);
    stream = fp_;
    fp_ = nullptr;
  }
  // No stream: already closed, or handed to a read-only cache that now owns
  // the file. Either way the file is not ours to delete.
  if (stream == nullptr) return kErrNotOpen;
  CacheFileIo().Close(stream);
  empty_sectors_.clear();
  CacheFileIo().Remove(cache_path_);
  stored_.Set(0);
  return kOk;
}

long long WritableCache::GetFileSize() {
  // Under file_lock_: the seek moves the position another thread may be
  // about to read or write at.
  MutexLock guard(file_lock_);
  if (fp_ == nullptr) return 0;
  const long long end = CacheFileIo().Size(fp_);
  return end < 0 ? 0 : end;
}

FILE* WritableCache::ReleaseStream() {
  // The file's bytes are the new owner's to report.
  MutexLock index_guard(index_lock_);
  stored_.Set(0);
  MutexLock guard(file_lock_);
  FILE* stream = fp_;
  fp_ = nullptr;
  // The new owner may read the file through its descriptor: nothing may stay
  // behind in this stream's buffer.
  if (stream != nullptr) CacheFileIo().Flush(stream);
  return stream;
}

