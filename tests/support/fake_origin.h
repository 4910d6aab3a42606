// A deterministic origin: the byte at offset x is ByteAt(x), delivered a
// sector per call. It records every range it is asked for and can be told to
// fail, to deliver short, to deliver nothing, to deliver more than asked, or
// to block until released.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvcache.h"

class FakeOrigin : public IFetch {
 public:
  // kNormal delivers the range, clipped to the file size; kFail nothing, and
  // returns 1; kShort the first half of the range (whole sectors); kNothing
  // nothing; kExtra one sector past the range too. All but kFail return 0.
  enum class Mode { kNormal, kFail, kShort, kNothing, kExtra };

  explicit FakeOrigin(long long size) : size_(size) {}

  // Making and comparing origin bytes touches only the caller's buffer, so
  // ThreadSanitizer has nothing to find there; left out of its
  // instrumentation, the tests' large reads run many times faster under it.
  __attribute__((no_sanitize("thread"))) static char ByteAt(long long offset) {
    uint64_t v = static_cast<uint64_t>(offset) * 0x9E3779B97F4A7C15ull;
    return static_cast<char>((v >> 56) ^ (static_cast<uint64_t>(offset) >> 19));
  }
  // The origin's `length` bytes at `offset`, into `out`.
  __attribute__((no_sanitize("thread"))) static void Fill(char* out, long long offset, long long length);
  // Index of the first byte of `data` that differs from the origin's bytes at
  // `offset`, or -1 when all `length` bytes match.
  __attribute__((no_sanitize("thread"))) static long long FirstMismatch(const char* data, long long offset,
                                                                        long long length);

  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override;
  std::string HandleInfo(_FS_HANDLE*) override {
    ++handle_infos_;
    return "origin-handle-info";
  }

  long long size() const { return size_; }
  void set_mode(Mode mode) { mode_.store(mode); }
  // While blocked, Fetch waits (after recording the request) until Release.
  void Block() { SetBlocked(true); }
  void Release() { SetBlocked(false); }
  // Waits until at least `n` requests arrived; false after ~5 s.
  bool WaitForRequests(size_t n);

  std::vector<std::pair<long long, long>> Requests() const;
  void ClearRequests();
  // The handles Fetch was given, in order, and how often HandleInfo was asked.
  std::vector<_FS_HANDLE> Handles() const;
  int HandleInfoCalls() const { return handle_infos_.load(); }

 private:
  void SetBlocked(bool blocked);

  const long long size_;
  std::atomic<Mode> mode_{Mode::kNormal};
  std::atomic<int> handle_infos_{0};
  mutable std::mutex lock_;
  std::condition_variable changed_;
  // State below is protected by lock_.
  bool blocked_ = false;
  std::vector<std::pair<long long, long>> requests_;
  std::vector<_FS_HANDLE> handles_;
};
