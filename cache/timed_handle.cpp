#include "cache/timed_handle.h"

#include <utility>

#include "cache/logging.h"
#include "common/file_io.h"
#include "common/clock.h"

namespace {

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyNow().time_since_epoch())
      .count();
}

// "Closed" is a null stream that still carries CloseHandle, so that every
// handle_ has a control block and a deleter no matter what it holds.
std::shared_ptr<FILE> ClosedStream() { return std::shared_ptr<FILE>(nullptr, CloseHandle); }

}  // namespace

bool CloseHandle(FILE* stream) {
  if (stream == nullptr) return false;
  CacheFileIo().Close(stream);
  return true;
}

TimedHandle::TimedHandle(std::string path)
    : path_(std::move(path)), handle_(ClosedStream()), last_tick_(NowNs()) {}

// shared_ptr calls the deleter itself when it cannot allocate the control
// block, so a failure here still flushes and closes `stream`.
TimedHandle::TimedHandle(FILE* stream) : handle_(stream, CloseHandle), last_tick_(NowNs()) {}

TimedHandle::~TimedHandle() = default;

TimedHandle& TimedHandle::operator=(FILE* stream) {
  std::shared_ptr<FILE> fresh(stream, CloseHandle);
  MutexLock guard(lock_);
  handle_.swap(fresh);
  last_tick_.store(NowNs(), std::memory_order_relaxed);
  // `fresh` now holds the previous stream; it is released with lock_ held.
  return *this;
}

std::shared_ptr<FILE> TimedHandle::GetHandle() {
  MutexLock guard(lock_);
  last_tick_.store(NowNs(), std::memory_order_relaxed);
  return handle_;
}

TimedHandle::operator std::shared_ptr<FILE>() { return GetHandle(); }

bool TimedHandle::IsValidHandle() {
  MutexLock guard(lock_);
  last_tick_.store(NowNs(), std::memory_order_relaxed);
  return handle_ != nullptr;
}

// Unlocked on purpose: it runs on every read and write, and a tick that races
// a closer can only hasten or delay one idle close.
void TimedHandle::Tick() { last_tick_.store(NowNs(), std::memory_order_relaxed); }

bool TimedHandle::CloseIfExpired() {
  MutexLock guard(lock_);
  const int64_t idle = NowNs() - last_tick_.load(std::memory_order_relaxed);
  if (idle < kIdleTimeout.count() || handle_ == nullptr) return false;
  CloseInternal();
  if (handle_ != nullptr) {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Trying to close cache handle but there are references",
             path_.c_str());
    return false;
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Cache handle closed", path_.c_str());
  return true;
}

void TimedHandle::Close() {
  MutexLock guard(lock_);
  CloseInternal();
  if (handle_ != nullptr) {
    KORV_LOG(LOGLEVEL_DEBUG,
             "[CACHE     ] [%s] Trying to close cache handle but there are references : force close",
             path_.c_str());
  } else {
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] Cache handle closed : force close", path_.c_str());
  }
}

void TimedHandle::CloseInternal() {
  if (handle_.use_count() == 0) return;
  // A second reference belongs to a user in the middle of an operation; its
  // stream must outlive this close.
  if (handle_.use_count() > 1) return;
  std::shared_ptr<FILE> old = std::exchange(handle_, ClosedStream());
  // Dropping the last reference runs CloseHandle: flush, then close.
  old.reset();
}
