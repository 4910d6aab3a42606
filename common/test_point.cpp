#include "common/test_point.h"

#include <atomic>
#include <memory>

#include "common/thread_annotations.h"

namespace {

using Hook = std::function<void(const char*)>;

std::atomic<bool> listening{false};
Mutex hook_lock;
std::shared_ptr<Hook> installed GUARDED_BY(hook_lock);

}  // namespace

void ReachTestPoint(const char* name) {
  if (!listening.load(std::memory_order_relaxed)) return;
  std::shared_ptr<Hook> hook;
  {
    MutexLock guard(hook_lock);
    hook = installed;
  }
  // Called without the lock: the hook may block until the test lets go.
  if (hook) (*hook)(name);
}

void SetTestPointHook(std::function<void(const char* name)> hook) {
  MutexLock guard(hook_lock);
  installed = hook ? std::make_shared<Hook>(std::move(hook)) : nullptr;
  listening.store(installed != nullptr, std::memory_order_relaxed);
}
