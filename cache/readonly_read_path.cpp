// The read path of ReadonlyCache: queueing of fetches for missing sectors,
// the waiting loop and the copy out. Reservations are in
// readonly_reservations.cpp, the fetch writes that fill slots in
// readonly_fetch_write.cpp.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include "cache/fetch_tasks.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"

namespace {

// Every read fetches at least this much from its offset, so that small
// sequential reads turn into few large origin requests.
constexpr long long kMinimumFetch = 1048576;

// A waiting reader wakes when the index changes, and at least this often to
// see whether its handle was closed or its time is up.
constexpr auto kPollInterval = std::chrono::milliseconds(10);

// The client closes the handle with a relaxed atomic store while we poll;
// the record's layout is fixed, so the field cannot be a std::atomic.
bool HandleClosed(const std::shared_ptr<_FS_HANDLE>& handle) {
  return handle != nullptr && __atomic_load_n(&handle->state, __ATOMIC_RELAXED) > 2;
}

}  // namespace

unsigned int ReadonlyCache::Read(_READDATA* rd) {
  if (rd == nullptr) return kErrInvalidArgument;
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Read : %p, %lld, %d", tag.c_str(),
           static_cast<void*>(rd->buffer), rd->offset, static_cast<int>(rd->size));
  // Reported as the failed seek such a range would be; a negative origin
  // size would have the fetcher asked for a negative range.
  if (!ValidRange(rd->offset, rd->size) || (rd->fetch != nullptr && rd->file_size < 0)) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : %s", tag.c_str(), strerror(EINVAL));
    return kErrFileRead;
  }
  if (rd->buffer == nullptr && rd->size > 0) return kErrInvalidArgument;
  std::shared_ptr<FILE> stream = OpenStream(false);
  if (!stream) return kErrRead;
  const _CACHECONFIG conf = GetConfig();
  const long long start = SectorOf(rd->offset);
  const long long end_of_read = rd->offset + static_cast<long long>(rd->size);
  long long timeout = rd->timeout;
  Queued queued = Queued::kNothing;

  if (rd->fetch != nullptr) {
    MutexLock guard(index_lock_);
    // Kept sectors that fail their check are dropped here, so that this
    // read fetches them again.
    VerifyKeptNoLock(start, std::min(end_of_read, rd->file_size), stream.get());
    if (rd->file_size != origin_size_) origin_size_ = rd->file_size;
    if (timeout == 0) timeout = static_cast<long long>(conf.readtimeout);

    if (rd->whole_file) {
      if (large_fetches_.load() == 0 && ReserveNoLock(0, rd->file_size) == kOk) {
        KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Trying to fetch whole file(%lld bytes).", tag.c_str(),
                 rd->file_size);
        auto own_handle = std::make_shared<_FS_HANDLE>();
        own_handle->type = 2;
        own_handle->state = 0;
        own_handle->id = 0;
        if (rd->handle) own_handle->info = rd->handle->info;
        auto* task = new AsyncLargeFetch(this, rd->fetch, 0, rd->file_size, own_handle, true);
        large_fetches_.fetch_add(1);
        read_ahead_middle_ = rd->file_size;
        QueueAsync(task, nullptr);  // may run, and free, the task right here
        timeout = -1;
      }
    } else {
      int read_ahead = CheckReadAhead(rd);
      const long long wanted = std::max(static_cast<long long>(rd->size), kMinimumFetch);
      // Nothing at or past the end of the file is fetched.
      const long long end = rd->offset >= rd->file_size ? rd->file_size
                                                        : rd->offset + std::min(wanted, rd->file_size - rd->offset);
      int result = QueueEmptySectors(start, end, rd->fetch, rd->handle);
      if (result == kOk) {
        queued = read_ahead == static_cast<int>(kFetchQueued) ? Queued::kReadAhead : Queued::kNothing;
      } else if (result == static_cast<int>(kFetchQueued)) {
        queued = Queued::kFetch;
      } else {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : QueueEmptySectors returns error",
                 tag.c_str());
        return static_cast<unsigned int>(result);
      }
    }
  }

  std::unique_lock<Mutex> index(index_lock_, std::defer_lock);
  if (rd->fetch != nullptr) {
    SteadyTime waiting_since = SteadyNow();
    for (;;) {
      index.lock();
      const uint64_t generation = index_generation_;
      long long stopped_at = start;
      bool missing = false;
      // Ready: keep index_lock_ through the copy so eviction cannot move a
      // slot under it. Sectors wholly past the end of the file never come,
      // so the wait stops at the end.
      if (index_.RangeReady(start, std::min(end_of_read, rd->file_size), &stopped_at, &missing)) break;
      bool stopped_reserved = false;
      if (missing) {
        if (queued != Queued::kNothing) {
          KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : Sector %lld not found on sector hash",
                   tag.c_str(), stopped_at);
          return kErrRead;
        }
        int result = QueueEmptySectors(start, std::min(end_of_read, rd->file_size), rd->fetch, rd->handle);
        if (result == static_cast<int>(kFetchQueued)) {
          queued = Queued::kFetch;
          waiting_since = SteadyNow();
        } else if (result != kOk) {
          KORV_LOG(LOGLEVEL_ERROR,
                   "[CACHE     ] [%s] Read failed : Sector %lld not found on sector hash and "
                   "QueueEmptySectors returns error",
                   tag.c_str(), stopped_at);
          return static_cast<unsigned int>(result);
        }
      } else {
        stopped_reserved = true;
      }
      index.unlock();

      if (HandleClosed(rd->handle)) {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : Handle closed before return", tag.c_str());
        ClearReserved(rd->offset, static_cast<long long>(rd->size));
        return kErrHandleClosed;
      }
      auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(SteadyNow() - waiting_since);
      if (timeout >= 0 && waited.count() > timeout) {
        std::string detail = "last checked sector offset was " + std::to_string(stopped_at) + " on offset " +
                             std::to_string(rd->offset) + ", length " + std::to_string(rd->size) + " and " +
                             (stopped_reserved ? "reserved" : "not reserved");
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read timed-out : %p, %lld, %d(%s)", tag.c_str(),
                 static_cast<void*>(rd->buffer), rd->offset, static_cast<int>(rd->size), detail.c_str());
        ClearReserved(rd->offset, static_cast<long long>(rd->size));
        return kErrRead;
      }
      index.lock();
      if (index_generation_ == generation) index_changed_.wait_for(index, kPollInterval);
      index.unlock();
    }
  } else {
    index.lock();
    VerifyKeptNoLock(start, end_of_read, stream.get());
  }

  return CopyOut(rd, stream, start, rd->fetch != nullptr);
}

unsigned int ReadonlyCache::CopyOut(_READDATA* rd, const std::shared_ptr<FILE>& stream, long long start,
                                    bool fetching) {
  const std::string tag = GetFileName();
  unsigned long long remaining = rd->size;
  unsigned long long done = 0;
  for (long long s = start; remaining > 0; s += kSectorSize) {
    // With a fetcher the origin's size is known: the read ends there.
    if (fetching && s >= rd->file_size) break;
    _SECTOR* found = index_.Find(s);
    // Without a fetcher a reserved sector holds no valid data yet: serve
    // what precedes it, as for an absent one.
    if (found == nullptr || (!fetching && found->reserved)) {
      if (fetching) {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : Sector %lld not found on sector hash",
                 tag.c_str(), s);
        return kErrRead;
      }
      break;
    }
    _SECTOR& sector = *found;
    long long position = sector.cache_offset + (s == start ? rd->offset % kSectorSize : 0);
    long long valid_end = sector.cache_offset + sector.size;
    long long count = std::min(valid_end - position, static_cast<long long>(remaining));
    if (count <= 0) break;  // the read starts past the valid data: end of file
    // One positioned read: it leaves the stream's position alone, so it needs
    // no file lock, and every write has been flushed before its sector became
    // readable.
    const long long got = CacheFileIo().ReadAt(stream.get(), rd->buffer + done, static_cast<size_t>(count), position);
    if (got < 0) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] ReadFile failed : %s", tag.c_str(), strerror(errno));
      return kErrFileRead;
    }
    count = static_cast<long long>(got);
    sector.hits += 1;
    sector.access_time = SteadyNow();
    done += static_cast<unsigned long long>(count);
    remaining -= static_cast<unsigned long long>(count);
    // A sector that ends short is the end of what can be served: the next
    // sector's bytes do not follow on from here.
    if (position + count < sector.cache_offset + kSectorSize && remaining > 0) break;
  }
  rd->transferred = done;
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Read done : %p, %lld, %d/%d", tag.c_str(),
           static_cast<void*>(rd->buffer), rd->offset, static_cast<int>(rd->size), static_cast<int>(done));
  return kOk;
}

int ReadonlyCache::QueueEmptySectors(long long start, long long end, IFetch* fetch,
                                     std::shared_ptr<_FS_HANDLE> handle) {
  if (start >= end) return kOk;
  const std::string tag = GetFileName();
  std::deque<long long> to_fetch;
  for (long long s = start; s < end; s += kSectorSize) {
    if (_SECTOR* present = index_.Find(s)) {
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Already %lld is in sectors_.", tag.c_str(),
               "QueueEmptySectors", s);
      present->hits = 0;
      continue;
    }
    to_fetch.push_back(s);
    index_.InsertReserved(s, 0, SteadyNow());
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] [%s] Inserted new sector %lld into sectors_.", tag.c_str(),
             "QueueEmptySectors", s);
  }
  if (fetch == nullptr || to_fetch.empty()) return kOk;
  QueueEmptySectors(to_fetch, fetch, std::move(handle));
  return static_cast<int>(kFetchQueued);
}

void ReadonlyCache::QueueEmptySectors(std::deque<long long>& offsets, IFetch* fetch,
                                      std::shared_ptr<_FS_HANDLE> handle) {
  std::map<long long, long long> runs;  // start -> length
  long long run_start = -1;
  long long run_length = 0;
  for (long long s : offsets) {
    if (run_start >= 0 && s == run_start + run_length) {
      run_length += kSectorSize;
    } else {
      run_start = s;
      run_length = kSectorSize;
    }
    runs[run_start] = run_length;
  }
  const std::string tag = GetFileName();
  for (const auto& run : runs) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Queue empty offset %lld to %lld(%d bytes)", tag.c_str(),
             run.first, run.first + run.second, static_cast<int>(run.second));
    // Runs inline, and frees itself, when no queue is bound.
    QueueAsync(new AsyncFetch(this, fetch, run.first, run.second, handle), nullptr);
  }
}
