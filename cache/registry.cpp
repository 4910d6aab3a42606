// The process-wide registry of cache managers, keyed by the exact path
// string the client passed.
#include <memory>
#include <string>
#include <unordered_map>

#include "cache/cache_manager.h"
#include "common/thread_annotations.h"

namespace {
// Held across a manager's construction and destruction (which joins its
// quota thread), so InitCache and ReleaseCache calls are serialised.
Mutex cl;
std::unordered_map<std::string, std::shared_ptr<Cache>> caches GUARDED_BY(cl);
}  // namespace

extern "C" KORV_EXPORT unsigned int InitCache(const char* path, unsigned long long limit, ICache_V2** cache) {
  if (path == nullptr || cache == nullptr) return kErrInvalidArgument;
  MutexLock guard(cl);
  auto it = caches.find(path);
  if (it == caches.end()) {
    try {
      it = caches.emplace(path, std::make_shared<Cache>(path, limit)).first;
    } catch (AERROR error) {
      return error;
    }
  }
  *cache = it->second.get();
  return kOk;
}

extern "C" KORV_EXPORT unsigned int ReleaseCache(const char* path) {
  if (path == nullptr) return kOk;
  std::shared_ptr<Cache> released;
  MutexLock guard(cl);
  auto it = caches.find(path);
  if (it != caches.end()) {
    released = std::move(it->second);
    caches.erase(it);
    released.reset();  // stops the quota thread while `cl` is held
  }
  return kOk;
}
