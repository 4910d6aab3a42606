// Counting the bytes a cache directory stores as they are stored: every cache
// file reports the change of its length to its manager's meter.
#pragma once

#include "korvcache.h"

class StorageMeter {
 public:
  // `delta` bytes more (or, negative, fewer) on disk. Called with the
  // reporting file's own locks held: must not call back into any cache file.
  virtual void Stored(long long delta) = 0;
  // Called by a fetch before it stores more, holding no lock of any cache:
  // holds it up, for a bounded time, while the directory is past the point
  // where stores wait for a clearing pass to make room.
  virtual void WaitForRoom() {}

 protected:
  ~StorageMeter() = default;
};

// The meter a cache file reports to: the one behind its settings, when they
// come from a manager (a file built without one counts nothing).
inline StorageMeter* MeterOf(ICacheConfig* config) { return dynamic_cast<StorageMeter*>(config); }

// What one cache file has reported so far. Not thread-safe: the file calls it
// under the lock that guards its length.
class StoredBytes {
 public:
  explicit StoredBytes(StorageMeter* meter) : meter_(meter) {}
  ~StoredBytes() { Set(0); }
  StoredBytes(const StoredBytes&) = delete;
  StoredBytes& operator=(const StoredBytes&) = delete;

  // The file now holds `bytes`.
  void Set(long long bytes) {
    if (meter_ != nullptr && bytes != reported_) meter_->Stored(bytes - reported_);
    reported_ = bytes;
  }

 private:
  StorageMeter* const meter_;
  long long reported_ = 0;
};
