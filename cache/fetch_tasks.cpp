#include "cache/fetch_tasks.h"

#include <algorithm>
#include <cstdint>

#include "cache/logging.h"
#include "cache/sector.h"
#include "common/test_point.h"

namespace {

// Failures after the reader closed its handle are expected and not logged.
// The client closes the handle with a relaxed atomic store while fetches run.
bool HandleOpen(const std::shared_ptr<_FS_HANDLE>& handle) {
  return handle == nullptr || __atomic_load_n(&handle->state, __ATOMIC_RELAXED) < 3;
}

// Only the low 32 bits of a fetch result carry its status.
bool FetchFailed(long long result) { return static_cast<uint32_t>(result) != 0; }

// Hands the fetcher's bytes to the cache, telling it whether this thread
// already holds its index lock.
class CacheSink : public IFetchCallback {
 public:
  CacheSink(FetchTarget* cache, IndexLock lock) : cache_(cache), lock_(lock) {}
  int FetchWrite(long long offset, const char* data, long length, long* written) override {
    // A task run inline holds the index lock, which a clearing pass needs.
    if (lock_ == IndexLock::kNotHeld) cache_->WaitForRoom();
    const int result = cache_->StoreFetched(offset, data, length, written, lock_);
    KORV_TEST_POINT("fetch: delivered");
    return result;
  }

 private:
  FetchTarget* const cache_;
  const IndexLock lock_;
};

}  // namespace

FetchTask::FetchTask(FetchTarget* cache, IFetch* fetch, long long offset, long long length,
                     std::shared_ptr<_FS_HANDLE> handle)
    : cache_(cache), fetch_(fetch), offset_(offset), length_(length), handle_(std::move(handle)) {
  cache_->TaskStarted();
}

FetchTask::~FetchTask() { cache_->TaskEnded(); }

AsyncFetch::AsyncFetch(FetchTarget* cache, IFetch* fetch, long long offset, long long length,
                       std::shared_ptr<_FS_HANDLE> handle)
    : FetchTask(cache, fetch, offset, length, std::move(handle)) {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead : %lld, %d", cache_->GetFileName().c_str(), offset_,
           static_cast<int>(length_));
}

void AsyncFetch::Process(void* param) {
  const std::string tag = cache_->GetFileName();
  const IndexLock lock = IndexLockForQueueParam(param);
  CacheSink sink(cache_, lock);
  long long result = fetch_->Fetch(offset_, static_cast<long>(length_), handle_, &sink);
  if (FetchFailed(result) && HandleOpen(handle_)) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read-ahead failed : %lld, %d", tag.c_str(), offset_,
             static_cast<int>(length_));
  }
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead : clear empty reserved block(s)", tag.c_str());
  cache_->ForgetReserved(offset_, length_, lock);
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead done : %lld, %d", tag.c_str(), offset_,
           static_cast<int>(length_));
  delete this;
}

void AsyncFetch::Canceled(void*) {
  cache_->ForgetReserved(offset_, length_, IndexLock::kNotHeld);
  delete this;
}

AsyncLargeFetch::AsyncLargeFetch(FetchTarget* cache, IFetch* fetch, long long offset, long long length,
                                 std::shared_ptr<_FS_HANDLE> handle, bool whole_file)
    : FetchTask(cache, fetch, offset, length, std::move(handle)), whole_file_(whole_file) {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead large block : %lld, %lld", cache_->GetFileName().c_str(),
           offset_, length_);
}

void AsyncLargeFetch::Process(void* param) {
  const std::string tag = cache_->GetFileName();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] AsyncLargeFetch : %lld, %lld", tag.c_str(), offset_, length_);
  const _CACHECONFIG conf = cache_->GetConfig();
  const IndexLock lock = IndexLockForQueueParam(param);
  CacheSink sink(cache_, lock);
  long long position = offset_;
  long long remaining = length_;
  while (remaining > 0) {
    long long piece = remaining;
    // A largest-request setting of 0 would never advance: fetch the rest.
    // Pieces are whole sectors, at least one: a piece ending inside a sector
    // would settle it short, and the next piece's first delivery, at an
    // unaligned offset, would land at that sector's slot start.
    if (!whole_file_ && conf.readfetchmax > 0) {
      const long long most = static_cast<long long>(std::min<uint64_t>(conf.readfetchmax, INT64_MAX));
      piece = std::min(remaining, std::max(kSectorSize, most / kSectorSize * kSectorSize));
    }
    long long result = fetch_->Fetch(position, static_cast<long>(piece), handle_, &sink);
    if (FetchFailed(result)) {
      if (HandleOpen(handle_)) {
        KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s:%d] Read-ahead large block failed : %lld, %lld", tag.c_str(),
                 static_cast<int>(result), offset_, length_);
      }
      break;
    }
    position += piece;
    remaining -= piece;
  }
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead large : clear empty reserved block(s)", tag.c_str());
  cache_->ForgetReserved(offset_, length_, lock);
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] [%s] Read-ahead large block done : %lld, %lld", tag.c_str(), offset_,
           length_);
  cache_->LargeFetchEnded(this);
  delete this;
}

void AsyncLargeFetch::Canceled(void*) {
  cache_->ForgetReserved(offset_, length_, IndexLock::kNotHeld);
  cache_->LargeFetchEnded(this);
  delete this;
}
