// The quota manager thread of Cache: closes idle handles and keeps the
// cache directory within its limit by making cache files drop old data.
#include <dirent.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "cache/cache_manager.h"
#include "cache/cache_obj.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "common/process.h"

namespace {

constexpr long long kHandleCheckMs = 5000;
constexpr long long kMeasureMs = 1000;
constexpr auto kCycle = std::chrono::milliseconds(300);

}  // namespace

long long Cache::MeasureDirectory() {
  DIR* dir = opendir(path_.c_str());
  if (dir == nullptr) return 0;
  long long total = 0;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const long long size = CacheFileIo().SizeAt(path_ + "/" + name);
    if (size > 0) total += size;
  }
  closedir(dir);
  return total;
}

// No manager or object lock is held while measuring, clearing a file or
// sleeping: clients wait at most for a table copy or one file's call.
void Cache::QuotaManager() {
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] Cache quota manager started");
  Chrono handle_watch;
  Chrono clear_watch;
  while (!stopping_.load(std::memory_order_relaxed)) {
    const long long period = static_cast<long long>(GetConfig().clrperiod);

    if (handle_watch.elapsed() > kHandleCheckMs) {
      int closed = 0;
      for (const auto& entry : CopyObjects()) closed += entry.second->CheckHandles() ? 1 : 0;
      handle_watch.reset();
      if (closed > 0) KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %d cache handle(s) closed", closed);
    }

    long long total = 0;
    if (clear_watch.elapsed() > kMeasureMs || clear_watch.elapsed() > period) total = MeasureDirectory();

    if (clear_watch.elapsed() > period) {
      auto objects = CopyObjects();
      const long long limit = static_cast<long long>(GetLimit());
      KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] %s",
               ("[CACHE] [" + path_ + "] Total cache : " + std::to_string(total) + "(limits : " +
                std::to_string(limit) + ")")
                   .c_str());
      bool over_quota = total > limit;
      for (const auto& entry : objects) {
        entry.second->ClearOldCache(over_quota);
        // Files after the one that brought the directory under its limit
        // get the periodic clean-up only.
        if (over_quota) over_quota = MeasureDirectory() > limit;
      }
      clear_watch.reset();
    }
    std::this_thread::sleep_for(kCycle);
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] Cache quota manager stopped");
}
