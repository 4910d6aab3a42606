// Shared pieces of the fault tests: checked reads, bounded waits, a watchdog
// that turns a deadlock into a failure, and a small tmpfs to fill up.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "korvcache.h"
#include "support/fake_origin.h"

namespace faults {

constexpr long long kMiB = 1048576;

// What one read gave.
struct ReadOutcome {
  unsigned int status = 0;
  unsigned long long transferred = 0;
  // Index of the first served byte that differs from the origin, or -1.
  long long mismatch = -1;
  // Served more than asked.
  bool overrun = false;
  bool Clean() const { return mismatch == -1 && !overrun; }
};

// One read through `io`; every byte it reports as served is compared with
// the origin's. A null `handle` gets a fresh open one.
ReadOutcome ReadAndCheck(ICacheIO& io, FakeOrigin& origin, long long offset, size_t size, long long timeout_ms,
                         std::shared_ptr<_FS_HANDLE> handle = nullptr, bool whole_file = false);

// Closes the client's handle as a client does: one relaxed atomic store.
inline void CloseClientHandle(const std::shared_ptr<_FS_HANDLE>& handle) {
  __atomic_store_n(&handle->state, 3, __ATOMIC_RELAXED);
}

inline std::shared_ptr<_FS_HANDLE> OpenHandle() {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->type = 1;
  handle->state = 1;
  handle->id = 1;
  return handle;
}

// Polls `done` every 5 ms; false when it is still false after `limit`.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10));

// Runs `work` on a thread of its own; Done() tells whether it has returned.
class Background {
 public:
  explicit Background(std::function<void()> work);
  ~Background();  // joins
  bool Done() const { return done_.load(); }
  // Waits for the work to return; false after `limit`.
  bool WaitDone(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// Aborts the process with `what` unless destroyed within `limit`: a library
// deadlock then fails its test at once instead of at the harness time-out.
class Watchdog {
 public:
  Watchdog(std::string what, std::chrono::seconds limit);
  ~Watchdog();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool disarmed_ = false;
  std::thread thread_;
};

// A tmpfs of `bytes` mounted on `directory` (which must exist) for the life
// of the object. Mounting needs root with CAP_SYS_ADMIN; when it is refused,
// mounted() is false and why() says why.
class SmallFilesystem {
 public:
  SmallFilesystem(std::string directory, long long bytes);
  ~SmallFilesystem();
  SmallFilesystem(const SmallFilesystem&) = delete;
  SmallFilesystem& operator=(const SmallFilesystem&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& why() const { return why_; }
  const std::string& path() const { return directory_; }
  // Bytes an unprivileged writer could still put there.
  long long FreeBytes() const;
  // Takes all but `leave` bytes with a filler file; true when it did.
  bool FillLeaving(long long leave);
  // Deletes the filler.
  void Unfill();

 private:
  std::string directory_;
  std::string filler_;
  bool mounted_ = false;
  std::string why_;
};

// Regular files ending in ".cache" directly in `directory`.
std::vector<std::string> SectorCacheFiles(const std::string& directory);
long long FileSize(const std::string& path);

}  // namespace faults
