// Requests as a client makes them, byte patterns to write, and reads whose
// every served byte is compared with what the file should hold.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "korvcache.h"
#include "support/fake_origin.h"

constexpr long long kMiB = 1048576;

// An open client handle, and its closing as a client does it: one relaxed
// atomic store.
inline std::shared_ptr<_FS_HANDLE> OpenHandle() { return std::make_shared<_FS_HANDLE>(_FS_HANDLE{1, 1, 1, ""}); }
inline void CloseClientHandle(const std::shared_ptr<_FS_HANDLE>& handle) {
  __atomic_store_n(&handle->state, 3, __ATOMIC_RELAXED);
}

// `size` bytes of a client's own: seed, seed + 1, ... repeating every 23.
inline std::vector<char> Pattern(size_t size, char seed) {
  std::vector<char> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + static_cast<char>(i % 23));
  return bytes;
}
// The origin's bytes [offset, offset + size).
inline std::vector<char> OriginBytes(long long offset, long long size) {
  std::vector<char> bytes(static_cast<size_t>(size));
  FakeOrigin::Fill(bytes.data(), offset, size);
  return bytes;
}

inline _READDATA ReadRequest(std::vector<char>& buffer, long long offset, IFetch* fetch, long long file_size = 0,
                             long long timeout_ms = 0, bool whole_file = false) {
  return _READDATA{buffer.data(), offset, buffer.size(), 0, OpenHandle(), file_size, fetch, timeout_ms, whole_file};
}
inline _WRITEDATA WriteRequest(const std::vector<char>& data, long long offset, long long file_size, IFetch* fetch) {
  return _WRITEDATA{data.data(), offset, data.size(), 0, OpenHandle(), file_size, fetch};
}

// What one read gave.
struct ReadOutcome {
  unsigned int status = 0;
  unsigned long long transferred = 0;
  // Index of the first served byte that differs from the expected, or -1.
  long long mismatch = -1;
  // Served more than asked, or wrote past the requested length.
  bool overrun = false;
  bool Clean() const { return mismatch == -1 && !overrun; }
};

// One read of `size` bytes at `offset` through `file` (a cache object or a
// cache file); every byte it reports as served is compared with `expected`
// (the whole file's bytes) or, when that is null, with the origin's. A null
// `handle` gets a fresh open one.
template <class File>
ReadOutcome ReadAndCheck(File& file, FakeOrigin& origin, long long offset, size_t size, long long timeout_ms,
                         std::shared_ptr<_FS_HANDLE> handle = nullptr, bool whole_file = false,
                         const std::vector<char>* expected = nullptr) {
  // A guard byte past the request shows a copy past the requested length
  // even where the sanitizer cannot.
  std::vector<char> buffer(size + 1, '\x5a');
  _READDATA rd = ReadRequest(buffer, offset, &origin, origin.size(), timeout_ms, whole_file);
  rd.size = size;
  if (handle) rd.handle = std::move(handle);
  ReadOutcome outcome;
  outcome.status = file.Read(&rd);
  outcome.transferred = rd.transferred;
  if (outcome.status != kOk) return outcome;
  outcome.overrun = rd.transferred > size || buffer[size] != '\x5a';
  const long long checked = static_cast<long long>(std::min<unsigned long long>(rd.transferred, size));
  if (expected == nullptr) {
    outcome.mismatch = FakeOrigin::FirstMismatch(buffer.data(), offset, checked);
    return outcome;
  }
  for (long long i = 0; i < checked && outcome.mismatch < 0; ++i) {
    const bool inside = offset + i < static_cast<long long>(expected->size());
    if (!inside || buffer[static_cast<size_t>(i)] != (*expected)[static_cast<size_t>(offset + i)]) outcome.mismatch = i;
  }
  return outcome;
}

// Success when the read serves all `size` bytes, each the expected one.
template <class File>
::testing::AssertionResult Served(File& file, FakeOrigin& origin, long long offset, size_t size,
                                  long long timeout_ms = 0, const std::vector<char>* expected = nullptr) {
  const ReadOutcome r = ReadAndCheck(file, origin, offset, size, timeout_ms, nullptr, false, expected);
  if (r.status == kOk && r.Clean() && r.transferred == size) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "read of " << size << " at " << offset << ": status " << r.status << ", "
                                       << r.transferred << " served, wrong byte " << r.mismatch
                                       << (r.overrun ? ", past the end" : "");
}

// The AERROR `call` throws, or kOk when it returns.
inline AERROR ErrorThrownBy(const std::function<void()>& call) {
  try {
    call();
  } catch (AERROR error) {
    return error;
  }
  return kOk;
}
