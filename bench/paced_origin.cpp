#include "bench/paced_origin.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr long long kStampSpacing = 4096;
constexpr char kFiller = static_cast<char>(0xA5);

}  // namespace

PacedOrigin::PacedOrigin(long long size, std::chrono::nanoseconds latency, double bytes_per_second,
                         long piece)
    : size_(size), latency_(latency), bytes_per_second_(bytes_per_second), piece_(piece) {}

void PacedOrigin::Fill(char* data, long long offset, long long length) {
  std::memset(data, kFiller, static_cast<size_t>(length));
  long long first = (offset + kStampSpacing - 1) / kStampSpacing * kStampSpacing;
  for (long long block = first; block < offset + length; block += kStampSpacing) {
    uint64_t stamp = static_cast<uint64_t>(block);
    size_t n = static_cast<size_t>(std::min<long long>(sizeof(stamp), offset + length - block));
    std::memcpy(data + (block - offset), &stamp, n);
  }
}

bool PacedOrigin::Matches(const char* data, long long offset, long long length) {
  if (length < static_cast<long long>(sizeof(uint64_t))) return true;
  auto stamp_ok = [&](long long at) {
    uint64_t stamp;
    std::memcpy(&stamp, data + at, sizeof(stamp));
    return stamp == static_cast<uint64_t>(offset + at);
  };
  long long last = (length - 1) / kStampSpacing * kStampSpacing;
  if (length - last < static_cast<long long>(sizeof(uint64_t))) last -= kStampSpacing;
  return stamp_ok(0) && (last <= 0 || stamp_ok(last));
}

bool PacedOrigin::WriteFile(const std::string& path) const {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return false;
  std::vector<char> buffer(1 << 20);
  bool ok = true;
  for (long long at = 0; ok && at < size_; at += static_cast<long long>(buffer.size())) {
    long long n = std::min<long long>(static_cast<long long>(buffer.size()), size_ - at);
    Fill(buffer.data(), at, n);
    ok = ::pwrite(fd, buffer.data(), static_cast<size_t>(n), static_cast<off_t>(at)) == n;
  }
  return ::close(fd) == 0 && ok;
}

PacedOrigin::Clock::time_point PacedOrigin::BookLink(Clock::time_point ready, long long bytes) {
  const auto duration = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(static_cast<double>(bytes) / bytes_per_second_));
  std::lock_guard<std::mutex> guard(link_lock_);
  // A link idle for longer than one piece's worth of buffering has lost that
  // time for good: it cannot send faster later to make up for it.
  Clock::time_point start = std::max({ready, link_free_, Clock::now() - duration});
  link_free_ = start + duration;
  return link_free_;
}

long long PacedOrigin::Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE>,
                             IFetchCallback* callback) {
  requests_.fetch_add(1);
  if (offset < 0 || length < 0 || callback == nullptr) return 1;
  const long long end = std::min(offset + static_cast<long long>(length), size_);
  thread_local std::vector<char> piece;
  piece.resize(static_cast<size_t>(piece_));

  Clock::time_point ready = Clock::now() + latency_;
  for (long long at = offset; at < end;) {
    const long long n = std::min<long long>(piece_, end - at);
    Fill(piece.data(), at, n);
    if (bytes_per_second_ > 0) ready = BookLink(ready, n);
    std::this_thread::sleep_until(ready);
    long written = 0;
    int result = callback->FetchWrite(at, piece.data(), static_cast<long>(n), &written);
    if (result != 0) return result;
    delivered_.fetch_add(n);
    at += n;
  }
  return 0;
}

std::string PacedOrigin::HandleInfo(_FS_HANDLE*) { return "bench"; }

void PacedOrigin::ResetCounters() {
  delivered_.store(0);
  requests_.store(0);
}
