#include "common/test_point.h"

#include <atomic>
#include <memory>
#include <thread>

#include "common/thread_annotations.h"

namespace {

Mutex hook_lock;

struct InstalledHook {
  explicit InstalledHook(std::function<void(const char*)> hook) : call(std::move(hook)) {}
  const std::function<void(const char*)> call;
  int callers GUARDED_BY(hook_lock) = 0;  // threads inside `call`
};

std::atomic<bool> listening{false};
std::shared_ptr<InstalledHook> installed GUARDED_BY(hook_lock);

}  // namespace

void ReachTestPoint(const char* name) {
  if (!listening.load(std::memory_order_relaxed)) return;
  std::shared_ptr<InstalledHook> hook;
  {
    MutexLock guard(hook_lock);
    hook = installed;
    if (!hook) return;
    ++hook->callers;
  }
  // Called without the lock: the hook may block until the test lets go.
  hook->call(name);
  MutexLock guard(hook_lock);
  --hook->callers;
}

void SetTestPointHook(std::function<void(const char* name)> hook) {
  std::shared_ptr<InstalledHook> old;
  {
    MutexLock guard(hook_lock);
    old = std::move(installed);
    installed = hook ? std::make_shared<InstalledHook>(std::move(hook)) : nullptr;
    listening.store(installed != nullptr, std::memory_order_relaxed);
  }
  // What the old hook captured (a test's gate, say) may go once this returns:
  // wait for the threads still inside it. They are on their way out, not
  // held: a test lets its threads go before it removes its hook.
  while (old) {
    {
      MutexLock guard(hook_lock);
      if (old->callers == 0) return;
    }
    std::this_thread::yield();
  }
}
