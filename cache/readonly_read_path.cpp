// The read path of ReadonlyCache: reservations, queueing of fetches, the
// waiting loop, the copy out, and the fetch writes that fill slots.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "cache/fetch_tasks.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "cache/readonly_cache.h"
#include "cache/sector.h"

namespace {

// Every read fetches at least this much from its offset, so that small
// sequential reads turn into few large origin requests.
constexpr long long kMinimumFetch = 1048576;

// Readers poll for their sectors; there is no condition variable to wait on.
constexpr auto kPollInterval = std::chrono::milliseconds(10);

// The client closes the handle with a relaxed atomic store while we poll;
// the record's layout is fixed, so the field cannot be a std::atomic.
bool HandleClosed(const std::shared_ptr<_FS_HANDLE>& handle) {
  return handle != nullptr && __atomic_load_n(&handle->state, __ATOMIC_RELAXED) > 2;
}

}  // namespace

unsigned int ReadonlyCache::Read(_READDATA* rd) {
  if (rd == nullptr) return kErrInvalidArgument;
  std::shared_ptr<FILE> stream = OpenStream(false);
  if (!stream) return kErrRead;
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Read : %p, %lld, %d", tag.c_str(),
           static_cast<void*>(rd->buffer), rd->offset, static_cast<int>(rd->size));
  const _CACHECONFIG conf = GetConfig();
  const long long start = SectorOf(rd->offset);
  const long long end_of_read = rd->offset + static_cast<long long>(rd->size);
  long long timeout = rd->timeout;
  Queued queued = Queued::kNothing;

  if (rd->fetch != nullptr) {
    std::lock_guard<std::mutex> guard(index_lock_);
    if (rd->file_size != origin_size_) origin_size_ = rd->file_size;
    if (timeout == 0) timeout = static_cast<long long>(conf.readtimeout);

    if (rd->whole_file) {
      if (read_ahead_.load() == nullptr && ReserveNoLock(0, rd->file_size) == kOk) {
        KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Trying to fetch whole file(%lld bytes).", tag.c_str(),
                 rd->file_size);
        auto own_handle = std::make_shared<_FS_HANDLE>();
        own_handle->type = 2;
        own_handle->state = 0;
        own_handle->id = 0;
        if (rd->handle) own_handle->info = rd->handle->info;
        auto* task = new AsyncLargeFetch(this, rd->fetch, 0, rd->file_size, own_handle, true);
        read_ahead_.store(task);
        QueueAsync(task, nullptr);  // may run, and free, the task right here
        timeout = -1;
      }
    } else {
      int read_ahead = CheckReadAhead(rd);
      long long end = std::min(rd->offset + std::max(static_cast<long long>(rd->size), kMinimumFetch),
                               rd->file_size);
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

  std::unique_lock<std::mutex> index(index_lock_, std::defer_lock);
  if (rd->fetch != nullptr) {
    SteadyTime waiting_since = SteadyNow();
    for (;;) {
      index.lock();
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
      std::this_thread::sleep_for(kPollInterval);
    }
  } else {
    index.lock();
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

unsigned int ReadonlyCache::Reserve(long long offset, long long length) {
  std::lock_guard<std::mutex> guard(index_lock_);
  return ReserveNoLock(offset, length);
}

unsigned int ReadonlyCache::ReserveNoLock(long long offset, long long length) {
  const std::string tag = GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Reserved blocks %lld to %lld(%lld bytes)", tag.c_str(), offset,
           offset + length, length);
  if (offset % kSectorSize != 0) return kErrUnaligned;
  const int count = index_.Reserve(offset, length, SteadyNow());
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] %d blocks reserved", tag.c_str(), count);
  return count == 0 ? kNothingReserved : kOk;
}

unsigned int ReadonlyCache::ClearReserved(long long offset, long long length) {
  std::lock_guard<std::mutex> guard(index_lock_);
  ClearReservedNoLock(offset, length);
  return kOk;
}

void ReadonlyCache::ClearReservedNoLock(long long offset, long long length) {
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Clear reserved blocks %lld to %lld(%lld bytes)",
           GetFileName().c_str(), offset, offset + length, length);
  index_.ClearReserved(offset, length);
}

int ReadonlyCache::FetchWrite(long long offset, const char* data, long length, long* written) {
  std::lock_guard<std::mutex> guard(index_lock_);
  return FetchWriteNoLock(offset, data, length, written);
}

int ReadonlyCache::StoreFetched(long long offset, const char* data, long length, long* written, IndexLock lock) {
  if (lock == IndexLock::kHeld) return FetchWriteNoLock(offset, data, length, written);
  return FetchWrite(offset, data, length, written);
}

void ReadonlyCache::ForgetReserved(long long offset, long long length, IndexLock lock) {
  if (lock == IndexLock::kHeld) {
    ClearReservedNoLock(offset, length);
  } else {
    ClearReserved(offset, length);
  }
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
      std::lock_guard<std::mutex> guard(file_lock_);
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
    data += chunk;
    total += chunk;
    length -= static_cast<long>(chunk);
    sector_offset += kSectorSize;
    first = false;
  }
  {
    // Every transfer seeks first, so this position means nothing; a stream
    // that cannot seek any more is reported all the same.
    std::lock_guard<std::mutex> guard(file_lock_);
    if (CacheFileIo().Seek(stream.get(), sector_offset) != 0) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Fetch write failed : %s", tag.c_str(), strerror(errno));
      return static_cast<int>(kErrFileWrite);
    }
  }
  if (written != nullptr) *written = static_cast<long>(total);
  return kOk;
}
