// Construction, the cache file and the small operations of ReadonlyCache.
// The read path is in readonly_read_path.cpp, read-ahead in read_ahead.cpp,
// eviction in sector_eviction.cpp.
#include "cache/readonly_cache.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "cache/default_settings.h"
#include "cache/file_names.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "common/process.h"
#include "common/split.h"
#include "common/test_point.h"

namespace {


std::string NewCachePath(const std::string& cache_dir) {
  std::string path;
  do {
    path = cache_dir + NewSectorCacheFileName();
  } while (IsFileOrDirectory(path));
  return path;
}

}  // namespace

ReadAheadPolicy ReadonlyCache::ReadAheadFor(ICacheConfig* config) {
  const _CACHECONFIG conf = config != nullptr ? config->GetConfig() : kDefaultCacheConfig;
  return ReadAheadPolicy(static_cast<long long>(conf.ramin), static_cast<long long>(conf.ramax));
}

ReadonlyCache::ReadonlyCache(std::string cache_dir, std::string name, long long origin_size,
                             ICacheConfig* config)
    : cache_dir_(std::move(cache_dir)),
      file_name_(TagFromName(name)),
      cache_path_(NewCachePath(cache_dir_)),
      handle_(cache_path_),
      origin_size_(origin_size),
      config_(config),
      read_ahead_policy_(ReadAheadFor(config)),
      stored_(MeterOf(config)),
      meter_(MeterOf(config)) {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read only cache initialized", file_name_.c_str());
}

ReadonlyCache::~ReadonlyCache() {
  Close(true);
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read only cache uninitialized", GetFileName().c_str());
}

_CACHECONFIG ReadonlyCache::GetConfig() {
  return config_ != nullptr ? config_->GetConfig() : kDefaultCacheConfig;
}

std::string ReadonlyCache::GetFileName() const {
  MutexLock guard(name_lock_);
  return file_name_;
}

void ReadonlyCache::ChangeFileName(std::string new_name) {
  MutexLock guard(name_lock_);
  file_name_ = std::move(new_name);
}

void ReadonlyCache::ClearIndexNoLock() {
  index_.Clear();
  read_ahead_policy_.Forget();
  IndexChangedNoLock();
}

void ReadonlyCache::WaitForRoom() {
  if (meter_ != nullptr) meter_->WaitForRoom();
}

void ReadonlyCache::ReportStoredNoLock() {
  // By path: a stream closed for idleness is not reopened for this.
  stored_.Set(std::max(0LL, CacheFileIo().DiskBytesAt(cache_path_)));
}

void ReadonlyCache::IndexChangedNoLock() {
  ++index_generation_;
  index_changed_.notify_all();
}

void ReadonlyCache::DropLostSlotsNoLock() {
  // Sectors still on their way keep their entries, so readers waiting for
  // them are served when the data arrive; they get a slot in the new file.
  index_.DropSettled();
  read_ahead_policy_.Forget();
  IndexChangedNoLock();
  stored_.Set(0);
}

std::shared_ptr<FILE> ReadonlyCache::OpenStream(bool index_locked) {
  if (handle_.IsValidHandle()) return handle_.GetHandle();
  // Opening is done under the index lock, one thread at a time. Two readers
  // opening at once would both find no file; the later one's "w+" would then
  // cut off the slots the earlier one had written meanwhile, and the next
  // appended sector would share a slot with one the index still points at.
  std::unique_lock<Mutex> guard(index_lock_, std::defer_lock);
  if (!index_locked) guard.lock();
  if (!handle_.IsValidHandle()) {
    // A file this cache created and that is now gone was deleted behind its
    // back: the slots the index points at are gone. (Before the first open
    // there is no file yet, and reservations made then must stay.)
    if (file_created_.load(std::memory_order_relaxed) && !IsFileOrDirectory(cache_path_)) {
      if (!index_.empty()) {
        KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] Cache file is deleted. Clear cache information. : %s",
                 cache_path_.c_str());
        DropLostSlotsNoLock();
      }
    }
    FILE* stream = CacheFileIo().Open(cache_path_, "r+");
    if (stream == nullptr) {
      KORV_TEST_POINT("sector cache: creating its file");
      stream = CacheFileIo().Open(cache_path_, "w+");
    }
    int open_errno = errno;
    handle_ = stream;
    if (stream != nullptr) {
      file_created_.store(true, std::memory_order_relaxed);
      KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read only cache opened(%s)", GetFileName().c_str(),
               cache_path_.c_str());
    } else {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] Cache open has failed : %s(%d)", cache_path_.c_str(),
               open_errno);
    }
  }
  return handle_.GetHandle();
}

long long ReadonlyCache::FileLength(bool index_locked) {
  std::shared_ptr<FILE> stream = OpenStream(index_locked);
  if (!stream) return 0;
  // Under file_lock_: the seek moves the position another thread may be
  // about to read or write at.
  MutexLock guard(file_lock_);
  const long long end = CacheFileIo().Size(stream.get());
  return end < 0 ? 0 : end;
}

long long ReadonlyCache::GetFileSize() { return FileLength(false); }

long long ReadonlyCache::GetFileOffset() { return FileLength(false); }

long long ReadonlyCache::GetFileSizeForQuota() {
  return IsFileOrDirectory(cache_path_) ? GetFileSize() : 0;
}

unsigned int ReadonlyCache::Write(_WRITEDATA*) { return kErrReadOnly; }

unsigned int ReadonlyCache::Truncate(long long) { return kErrReadOnly; }

bool ReadonlyCache::CheckHandles() { return handle_.CloseIfExpired(); }

void ReadonlyCache::TaskEnded() {
  MutexLock guard(tasks_lock_);
  read_ahead_count_.fetch_sub(1, std::memory_order_release);
  tasks_done_.notify_all();
}

void ReadonlyCache::LargeFetchEnded(const IAsyncObj*) { large_fetches_.fetch_sub(1); }

void ReadonlyCache::WaitForTasks() {
  // Fetch tasks hold a raw pointer to this cache: it must outlive them all.
  std::unique_lock<Mutex> tasks(tasks_lock_);
  for (;;) {
    int64_t running = read_ahead_count_.load(std::memory_order_acquire);
    if (running == 0) break;
    KORV_LOG(LOGLEVEL_DEBUG,
             "[CACHE     ] [%s] %lld of read-ahead thread still working. Wait for thread termination.",
             GetFileName().c_str(), static_cast<long long>(running));
    KORV_TEST_POINT("sector cache: waiting for its fetch tasks");
    tasks_done_.wait_for(tasks, std::chrono::milliseconds(10));
  }
}

unsigned int ReadonlyCache::Close(bool remove) {
  delete_on_close_.store(remove, std::memory_order_relaxed);
  WaitForTasks();
  MutexLock guard(index_lock_);
  if (!delete_on_close_.load(std::memory_order_relaxed) || kept_) return kOk;
  // A stream closed for idleness is reported, but its file goes all the
  // same: nothing would ever open a file of this name again, and left
  // behind it would count against the directory's limit for good.
  const bool was_open = handle_.IsValidHandle();
  handle_.Close();
  ClearIndexNoLock();
  ForgetKeptIndexNoLock();
  if (file_created_.load(std::memory_order_relaxed)) CacheFileIo().Remove(cache_path_);
  stored_.Set(0);
  return was_open ? kOk : kErrNotOpen;
}
