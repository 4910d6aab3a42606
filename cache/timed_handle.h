// The one open stdio stream of a cache file, closed once nobody has used it
// for a while.
//
// Users never own the stream: they take a shared reference for the span of one
// operation, and neither closer touches a stream while such a reference is
// alive. A reference outlives any close and the handle itself; the stream is
// flushed and closed on whichever thread drops its last reference.
//
// Thread safety: every operation may be called from any thread at once.
// Lock order: lock_ is the innermost lock of the library; nothing is locked
// while it is held.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "common/thread_annotations.h"

// Deleter of every stream reference a TimedHandle makes: flushes and closes
// `stream`. Returns false, doing nothing, when `stream` is null.
bool CloseHandle(FILE* stream);

class TimedHandle {
 public:
  // A stream idle for at least this long may be closed by CloseIfExpired.
  static constexpr std::chrono::nanoseconds kIdleTimeout = std::chrono::seconds(11);

  // Starts closed; the owner opens the file and installs the stream with
  // operator=. `path` serves only as the tag of log lines.
  explicit TimedHandle(std::string path);
  // Takes ownership of `stream` (which may be null) and starts open, with an
  // empty tag. If wrapping the stream fails, the stream is flushed and closed
  // before the failure propagates.
  explicit TimedHandle(FILE* stream);
  // Drops this handle's reference only: the stream stays open while any
  // reference from GetHandle is alive.
  virtual ~TimedHandle();

  TimedHandle(const TimedHandle&) = delete;
  TimedHandle& operator=(const TimedHandle&) = delete;

  // Takes ownership of `stream` and makes it the current one. The previous
  // stream is closed now if nobody else holds it, else when its last holder
  // lets go. Counts as a use.
  TimedHandle& operator=(FILE* stream);

  // A new reference to the current stream (null when closed; it still has
  // CloseHandle as its deleter). While it is alive neither closer closes the
  // stream. Counts as a use.
  [[nodiscard]] std::shared_ptr<FILE> GetHandle();
  // Same as GetHandle.
  operator std::shared_ptr<FILE>();

  // True when a stream is open. Counts as a use, so asking delays the close.
  bool IsValidHandle();

  // Records a use without taking lock_.
  void Tick();

  // Closes the stream when it has been idle for kIdleTimeout or longer and no
  // reference to it is alive. Returns true only when it closed the stream.
  // Does not count as a use.
  bool CloseIfExpired();

  // Closes the stream regardless of idleness, but, like CloseIfExpired, leaves
  // it open while any reference to it is alive: a user in the middle of an
  // operation never loses its stream. Does not count as a use.
  void Close();

 private:
  void CloseInternal() REQUIRES(lock_);

  const std::string path_;

  Mutex lock_;
  std::shared_ptr<FILE> handle_ GUARDED_BY(lock_);
  // Steady-clock nanoseconds (time_since_epoch) of the last use. Written
  // under lock_ except by Tick, hence atomic; relaxed, as it publishes nothing.
  std::atomic<int64_t> last_tick_;
};
