// An in-process origin for benchmarks: answers each Fetch after a fixed
// latency and delivers its bytes no faster than a bandwidth cap, in pieces of
// a fixed size, through the cache's FetchWrite.
//
// The cap belongs to one link shared by all concurrent fetches, so four
// workers fetching at once get the cap between them, not four times it. The
// link keeps sending while the receiver writes a piece away (one piece of
// buffering), as a socket would, so the receiver's own write time is not
// charged as link time unless it is slower than the link.
//
// Content: every 4 KiB block of the file starts with its own offset as an
// 8-byte number in native byte order; the rest is a filler byte. WriteFile
// makes a local file with the same bytes.
//
// Thread safety: Fetch may be called from any number of threads at once.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "korvcache.h"

class PacedOrigin : public IFetch {
 public:
  using Clock = std::chrono::steady_clock;

  // A `bytes_per_second` of 0 means no cap; a zero `latency` no delay.
  PacedOrigin(long long size, std::chrono::nanoseconds latency, double bytes_per_second,
              long piece = 524288);

  PacedOrigin(const PacedOrigin&) = delete;
  PacedOrigin& operator=(const PacedOrigin&) = delete;

  // Delivers [offset, offset + length), clipped to the file, then returns 0;
  // returns the first non-zero FetchWrite result, or 1 for a bad range.
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override;
  std::string HandleInfo(_FS_HANDLE* handle) override;

  long long size() const { return size_; }
  double bytes_per_second() const { return bytes_per_second_; }

  // Bytes handed to FetchWrite and Fetch calls received since the last reset.
  long long BytesDelivered() const { return delivered_.load(); }
  long long Requests() const { return requests_.load(); }
  void ResetCounters();

  // The file's bytes at [offset, offset + length).
  static void Fill(char* data, long long offset, long long length);
  // True when `data`, holding the bytes at `offset` (a multiple of 4 KiB),
  // carries the right stamps in its first and last block.
  static bool Matches(const char* data, long long offset, long long length);
  // Writes the whole file to `path`; false on failure.
  bool WriteFile(const std::string& path) const;

 private:
  // Books `bytes` of link time starting no earlier than `ready`; returns when
  // the last of them has arrived.
  Clock::time_point BookLink(Clock::time_point ready, long long bytes);

  const long long size_;
  const std::chrono::nanoseconds latency_;
  const double bytes_per_second_;
  const long piece_;

  std::mutex link_lock_;
  Clock::time_point link_free_{};  // guarded by link_lock_

  std::atomic<long long> delivered_{0};
  std::atomic<long long> requests_{0};
};
