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
  if (mode == Mode::kFail) return 1;
  if (mode == Mode::kNothing) return 0;
  long long end = offset + length;
  if (mode == Mode::kShort) end = offset + std::max(kSectorSize, SectorOf(length / 2));
  if (mode == Mode::kExtra) end += kSectorSize;
  end = std::min(end, size_);
  std::vector<char> bytes;
  for (long long position = offset; position < end; position += kSectorSize) {
    bytes.resize(static_cast<size_t>(std::min(kSectorSize, end - position)));
    Fill(bytes.data(), position, static_cast<long long>(bytes.size()));
    long written = 0;
    const int result = callback->FetchWrite(position, bytes.data(), static_cast<long>(bytes.size()), &written);
    if (result != 0) return result;
  }
  return 0;
}

std::string FakeOrigin::HandleInfo(_FS_HANDLE*) {
  ++handle_infos_;
  return "origin-handle-info";
}

void FakeOrigin::Block() {
  std::lock_guard<std::mutex> guard(lock_);
  blocked_ = true;
}

void FakeOrigin::Release() {
  std::lock_guard<std::mutex> guard(lock_);
  blocked_ = false;
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
