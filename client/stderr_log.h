// The client's logger: one time-stamped line per message on standard error,
// filtered by a mask of LOGLEVEL bits.
#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include "korvcache.h"

class StderrLog : public ILog {
 public:
  explicit StderrLog(unsigned mask) : mask_(mask) {}

  void Write(LOGLEVEL level, const char* format, va_list args) override;
  void SetMask(unsigned mask) { mask_.store(mask, std::memory_order_relaxed); }

  // "debug", "info", "warning", "error" or "none": that level and the ones
  // above it. Returns false for any other word.
  static bool MaskFromName(const std::string& name, unsigned* mask);

 private:
  std::atomic<unsigned> mask_;
};

// Client-side messages, stamped like the library's.
void ClientLog(LOGLEVEL level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Messages a person must see whatever the level mask says (lost data, failed
// uploads): always written to standard error.
void ClientAlert(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Where ClientLog writes; null (the default) writes errors and warnings only.
void SetClientLog(StderrLog* log);
