#include "support/fake_origin.h"

#include <algorithm>
#include <chrono>

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
  Mode mode = mode_.load();
  if (mode == Mode::kFail) return 1;
  if (mode == Mode::kNothing) return 0;
  long long end = offset + length;
  if (mode == Mode::kShort) end = offset + std::max<long long>(524288, (length / 2) / 524288 * 524288);
  if (mode == Mode::kExtra) end += 524288;
  end = std::min(end, size_);
  long piece = delivery_.load();
  std::vector<char> bytes;
  for (long long position = offset; position < end;) {
    long long n = piece > 0 ? std::min<long long>(piece, end - position) : end - position;
    bytes.resize(static_cast<size_t>(n));
    for (long long i = 0; i < n; ++i) bytes[static_cast<size_t>(i)] = ByteAt(position + i);
    long written = 0;
    int result = callback->FetchWrite(position, bytes.data(), static_cast<long>(n), &written);
    {
      std::lock_guard<std::mutex> guard(lock_);
      write_results_.push_back(result);
    }
    if (result != 0) return result;
    position += n;
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

long long FakeOrigin::BytesFetched() const {
  std::lock_guard<std::mutex> guard(lock_);
  long long total = 0;
  for (const auto& r : requests_) total += std::min<long long>(r.second, std::max<long long>(0, size_ - r.first));
  return total;
}

void FakeOrigin::ClearRequests() {
  std::lock_guard<std::mutex> guard(lock_);
  requests_.clear();
  write_results_.clear();
  handles_.clear();
}

std::vector<_FS_HANDLE> FakeOrigin::Handles() const {
  std::lock_guard<std::mutex> guard(lock_);
  return handles_;
}

std::vector<int> FakeOrigin::WriteResults() const {
  std::lock_guard<std::mutex> guard(lock_);
  return write_results_;
}
