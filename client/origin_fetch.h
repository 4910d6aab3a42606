// The library's fetcher for one remote file: asks the origin for a range and
// hands the bytes to the cache in whole 512 KiB sectors as they arrive, so a
// reader waiting for the first sector of a long range gets it early.
// Transient origin failures are retried with back-off, resuming after the
// bytes already delivered.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "korvcache.h"
#include "origin.h"
#include "transfer_counters.h"

struct RetryPolicy {
  int attempts = 4;             // tries per range, the first included
  long long first_delay_ms = 100;  // doubled after every failed try
};

class OriginFetch : public IFetch {
 public:
  // `origin` and the drive's counters must outlive the fetcher; the file's
  // counters are shared, so a transfer still running when the drive lets go
  // of the file counts into memory it co-owns. `validator` is the file
  // version the cache holds: bytes of any other version are refused.
  // A set `stop` ends every transfer at its next bytes (unmounting).
  OriginFetch(Origin* origin, std::string path, std::string validator, TransferCounters* drive,
              std::shared_ptr<TransferCounters> file, RetryPolicy retry = RetryPolicy(),
              const std::atomic<bool>* stop = nullptr);

  // Returns 0 when every byte of the range up to the end of the file was
  // delivered, 1 otherwise (the library then gives up its reservations).
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override;
  std::string HandleInfo(_FS_HANDLE* handle) override;

  std::string path() const;
  // The file was renamed on the origin: later requests ask for `path`.
  void SetPath(const std::string& path);
  // The origin's version changed without its contents (a new modification time).
  void SetValidator(const std::string& validator);
  // A fetch found the origin holding another version than the cache's.
  bool SawChange() const { return saw_change_.load(std::memory_order_relaxed); }

 private:
  long long FetchRange(long long offset, long length, const std::shared_ptr<_FS_HANDLE>& handle,
                       IFetchCallback* callback);

  Origin* const origin_;
  mutable std::mutex target_lock_;
  std::string path_;       // protected by target_lock_
  std::string validator_;  // protected by target_lock_
  TransferCounters* const drive_;
  const std::shared_ptr<TransferCounters> file_;
  const RetryPolicy retry_;
  const std::atomic<bool>* const stop_;
  std::atomic<bool> saw_change_{false};
};
