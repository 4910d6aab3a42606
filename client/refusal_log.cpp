#include "refusal_log.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

#include "stderr_log.h"

namespace {

// What a volume answers when it will not do what was asked, as opposed to a
// missing name (ENOENT) or a failure of the origin (EIO), told elsewhere.
bool IsRefusal(int error) {
  switch (error) {
    case EPERM: case EACCES: case ENOTEMPTY: case EXDEV: case EBUSY: case EINVAL: case EISDIR: case ENOTSUP:
      return true;
    default:
      return false;
  }
}

// Bounds the memory a long-running tool's refusals take: past it every
// refusal is told again, once per pass.
constexpr size_t kRemembered = 4096;

}  // namespace

int TellRefusal(const char* operation, const std::string& path, int result) {
  if (result >= 0 || !IsRefusal(-result)) return result;
  static std::mutex lock;
  static std::set<std::pair<std::string, std::string>> told;
  {
    std::lock_guard<std::mutex> guard(lock);
    if (told.size() >= kRemembered) told.clear();
    if (!told.emplace(operation, path).second) return result;
  }
  ClientLog(LOGLEVEL_WARNING, "%s %s refused: %s (told once for this operation and path)", operation, path.c_str(),
            strerror(-result));
  return result;
}
