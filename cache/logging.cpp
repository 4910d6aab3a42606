#include "cache/logging.h"

#include <atomic>

#include "common/thread_annotations.h"

namespace {
// Binding and unbinding are serialised by `ll`; readers load the pointer
// without it. Release/acquire so that a reader that sees a logger also sees
// the logger's own construction.
std::atomic<ILog*> logger{nullptr};
Mutex ll;
}  // namespace

ILog* CurrentLogger() { return logger.load(std::memory_order_acquire); }

void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...) {
  if (log == nullptr) return;
  va_list args;
  va_start(args, format);
  log->Write(level, format, args);
  va_end(args);
}

extern "C" KORV_EXPORT bool Cache_BindLogger(ILog* log) {
  if (log == nullptr) return false;
  MutexLock guard(ll);
  logger.store(log, std::memory_order_release);
  return true;
}

extern "C" KORV_EXPORT void Cache_UnbindLogger() {
  MutexLock guard(ll);
  logger.store(nullptr, std::memory_order_release);
}
