#include "origin_fetch.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "stderr_log.h"

namespace {

constexpr long long kSectorBytes = 512 * 1024;

// Collects arriving bytes and passes them on in pieces that end on sector
// boundaries of the file (the last piece of a range may be shorter).
class SectorBatcher {
 public:
  SectorBatcher(long long offset, IFetchCallback* callback)
      : next_(offset), callback_(callback), buffer_(static_cast<size_t>(kSectorBytes)) {}

  bool Add(const char* data, size_t length) {
    while (length > 0) {
      const long long room = PieceEnd() - (next_ + pending_);
      const size_t take = static_cast<size_t>(std::min<long long>(room, static_cast<long long>(length)));
      std::memcpy(buffer_.data() + pending_, data, take);
      pending_ += static_cast<long long>(take);
      data += take;
      length -= take;
      if (next_ + pending_ == PieceEnd() && !Deliver()) return false;
    }
    return true;
  }

  // Delivers a partial last piece. Returns false when the cache refused it.
  bool Deliver() {
    if (pending_ == 0) return true;
    long written = 0;
    const int result = callback_->FetchWrite(next_, buffer_.data(), static_cast<long>(pending_), &written);
    if (result != 0) {
      refused_ = result;
      return false;
    }
    next_ += pending_;
    pending_ = 0;
    return true;
  }

  long long received_end() const { return next_ + pending_; }
  int refused() const { return refused_; }

 private:
  long long PieceEnd() const { return (next_ / kSectorBytes + 1) * kSectorBytes; }

  long long next_;  // file offset of buffer_[0]
  long long pending_ = 0;
  IFetchCallback* const callback_;
  std::vector<char> buffer_;
  int refused_ = 0;
};

}  // namespace

OriginFetch::OriginFetch(Origin* origin, std::string path, std::string validator, TransferCounters* drive,
                         std::shared_ptr<TransferCounters> file, RetryPolicy retry, const std::atomic<bool>* stop)
    : origin_(origin), path_(std::move(path)), validator_(std::move(validator)), drive_(drive), file_(std::move(file)),
      retry_(retry), stop_(stop) {}

long long OriginFetch::Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                             IFetchCallback* callback) {
  return FetchRange(offset, length, handle, callback);
}

long long OriginFetch::FetchRange(long long offset, long length, const std::shared_ptr<_FS_HANDLE>& handle,
                                  IFetchCallback* callback) {
  if (callback == nullptr || offset < 0) return 1;
  if (length <= 0) return 0;
  const long long end = offset + length;
  SectorBatcher batcher(offset, callback);
  auto sink = [&](const char* data, size_t size) {
    if (stop_ != nullptr && stop_->load(std::memory_order_relaxed)) return false;
    TransferCounters::Add(drive_->bytes_fetched, static_cast<long long>(size));
    TransferCounters::Add(file_->bytes_fetched, static_cast<long long>(size));
    return batcher.Add(data, size);
  };

  long long delay_ms = retry_.first_delay_ms;
  for (int attempt = 1;; ++attempt) {
    const long long from = batcher.received_end();
    std::string error, path, validator;
    {
      std::lock_guard<std::mutex> guard(target_lock_);
      path = path_;
      validator = validator_;
    }
    TransferCounters::Add(drive_->origin_requests, 1);
    TransferCounters::Add(file_->origin_requests, 1);
    TransferCounters::Add(drive_->in_flight, 1);
    const OriginStatus status = origin_->ReadRange(path, from, end - from, validator, sink, &error);
    TransferCounters::Add(drive_->in_flight, -1);
    if (stop_ != nullptr && stop_->load(std::memory_order_relaxed)) return 1;
    if (batcher.refused() != 0) {
      ClientLog(LOGLEVEL_ERROR, "fetch %s at %lld: the cache refused the bytes (%d)", path.c_str(),
                batcher.received_end(), batcher.refused());
      return 1;
    }
    if (status == OriginStatus::kOk) break;
    if (status == OriginStatus::kChanged) saw_change_.store(true, std::memory_order_relaxed);
    const bool closed = handle && __atomic_load_n(&handle->state, __ATOMIC_RELAXED) > 2;
    if (!IsTransient(status) || attempt >= retry_.attempts || closed) {
      ClientLog(LOGLEVEL_ERROR, "fetch %s [%lld, %lld) from %s: %s: %s", path.c_str(), from, end,
                origin_->Describe().c_str(), OriginStatusText(status), error.c_str());
      return 1;
    }
    ClientLog(LOGLEVEL_WARNING, "fetch %s at %lld: %s (%s); try %d of %d in %lld ms", path.c_str(), from,
              OriginStatusText(status), error.c_str(), attempt + 1, retry_.attempts, delay_ms);
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    delay_ms *= 2;
  }
  return batcher.Deliver() ? 0 : 1;
}

std::string OriginFetch::HandleInfo(_FS_HANDLE* handle) { return handle != nullptr ? handle->info : path(); }

std::string OriginFetch::path() const {
  std::lock_guard<std::mutex> guard(target_lock_);
  return path_;
}

void OriginFetch::SetPath(const std::string& path) {
  std::lock_guard<std::mutex> guard(target_lock_);
  path_ = path;
}

void OriginFetch::SetValidator(const std::string& validator) {
  std::lock_guard<std::mutex> guard(target_lock_);
  validator_ = validator;
}
