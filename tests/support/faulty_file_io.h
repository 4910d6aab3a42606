// A FileIo that breaks the calls a test chooses and makes the real ones
// otherwise: a full disk, an I/O error, a short write, a file that cannot be
// opened. Installed for the cache files while it exists; no root, no timing.
// It must outlive every thread that may be inside a call on a cache file (a
// manager's quota thread included): release the manager first.
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>

#include "common/file_io.h"

class FaultyFileIo : public FileIo {
 public:
  enum class Call { kNone, kOpen, kRead, kReadAt, kWrite, kFlush, kTruncate };

  FaultyFileIo() : previous_(SetCacheFileIoForTesting(this)) {}
  ~FaultyFileIo() override { SetCacheFileIoForTesting(previous_); }
  FaultyFileIo(const FaultyFileIo&) = delete;
  FaultyFileIo& operator=(const FaultyFileIo&) = delete;

  // From now on every `call` fails with `error`; a failing write first
  // stores `stored` bytes of what it was given (a short write).
  void Break(Call call, int error, size_t stored = 0) {
    std::lock_guard<std::mutex> guard(lock_);
    broken_ = call;
    error_ = error;
    stored_ = stored;
  }
  void Heal() { Break(Call::kNone, 0); }
  int failures() { return failures_; }

  FILE* Open(const std::string& path, const char* mode) override {
    return Fails(Call::kOpen) ? nullptr : FileIo::Open(path, mode);
  }
  long long Read(FILE* stream, void* data, size_t length) override {
    return Fails(Call::kRead) ? -1 : FileIo::Read(stream, data, length);
  }
  long long ReadAt(FILE* stream, void* data, size_t length, long long offset) override {
    return Fails(Call::kReadAt) ? -1 : FileIo::ReadAt(stream, data, length, offset);
  }
  size_t Write(FILE* stream, const void* data, size_t length) override {
    size_t stored = 0;
    if (!Fails(Call::kWrite, &stored)) return FileIo::Write(stream, data, length);
    const int error = errno;
    const size_t put = stored > 0 ? FileIo::Write(stream, data, std::min(stored, length - 1)) : 0;
    errno = error;
    return put;
  }
  int Flush(FILE* stream) override { return Fails(Call::kFlush) ? EOF : FileIo::Flush(stream); }
  int Truncate(FILE* stream, long long length) override {
    return Fails(Call::kTruncate) ? -1 : FileIo::Truncate(stream, length);
  }

 private:
  // Sets errno when `call` is broken.
  bool Fails(Call call, size_t* stored = nullptr) {
    std::lock_guard<std::mutex> guard(lock_);
    if (call != broken_) return false;
    ++failures_;
    if (stored != nullptr) *stored = stored_;
    errno = error_;
    return true;
  }

  FileIo* const previous_;
  std::atomic<int> failures_{0};
  std::mutex lock_;
  // State below is protected by lock_.
  Call broken_ = Call::kNone;
  int error_ = 0;
  size_t stored_ = 0;
};
