#include "support/fake_origin.h"

#include <algorithm>
#include <chrono>

#include "cache/sector.h"

void FakeOrigin::Fill(char* out, long long offset, long long length) {
  for (long long i = 0; i < length; ++i) out[i] = ByteAt(offset + i);
}

long long FakeOrigin::FirstMismatch(const char* data, long long offset, long long length) {
  for (long long i = 0; i < length; ++i)
    if (data[i] != ByteAt(offset + i)) return i;
  return -1;
}

long long FakeOrigin::Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                            IFetchCallback* callback) {
  {
    std::unique_lock<std::mutex> guard(lock_);
    requests_.emplace_back(offset, length);
    handles_.push_back(handle ? *handle : _FS_HANDLE{});
    changed_.notify_all();
    changed_.wait(guard, [this] { return !blocked_; });
  }
  const Mode mode = mode_.load();
  if (mode == Mode::kFail || mode == Mode::kNothing) return mode == Mode::kFail ? 1 : 0;
  long long end = offset + (mode == Mode::kShort ? std::max(kSectorSize, SectorOf(length / 2)) : length);
  end = std::min(end + (mode == Mode::kExtra ? kSectorSize : 0), size_);
  std::vector<char> bytes(static_cast<size_t>(kSectorSize));
  for (long long position = offset; position < end; position += kSectorSize) {
    const long count = static_cast<long>(std::min(kSectorSize, end - position));
    Fill(bytes.data(), position, count);
    long written = 0;
    const int result = callback->FetchWrite(position, bytes.data(), count, &written);
    if (result != 0) return result;
  }
  return 0;
}

void FakeOrigin::SetBlocked(bool blocked) {
  std::lock_guard<std::mutex> guard(lock_);
  blocked_ = blocked;
  changed_.notify_all();
}

bool FakeOrigin::WaitForRequests(size_t n) {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, std::chrono::seconds(5), [&] { return requests_.size() >= n; });
}

std::vector<std::pair<long long, long>> FakeOrigin::Requests() const {
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

void FakeOrigin::ClearRequests() {
  std::lock_guard<std::mutex> guard(lock_);
  requests_.clear();
  handles_.clear();
}

std::vector<_FS_HANDLE> FakeOrigin::Handles() const {
  std::lock_guard<std::mutex> guard(lock_);
  return handles_;
}
