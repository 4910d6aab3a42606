#include "cache/quota_thread.h"

#include <chrono>

#include "cache/cache_obj.h"
#include "cache/file_names.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "common/process.h"
#include "common/test_point.h"

namespace {

constexpr long long kHandleCheckMs = 5000;
constexpr long long kMeasureMs = 1000;
constexpr auto kCycle = std::chrono::milliseconds(300);

}  // namespace

QuotaThread::QuotaThread(QuotaDirectory* directory) : directory_(directory) {
  thread_ = std::thread([this] { Run(); });
}

QuotaThread::~QuotaThread() {
  {
    MutexLock guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

long long QuotaThread::MeasureDirectory(const std::string& path) {
  long long total = 0;
  for (const std::string& name : DirectoryEntries(path)) {
    const long long size = CacheFileIo().SizeAt(path + "/" + name);
    if (size > 0) total += size;
  }
  return total;
}

int QuotaThread::CloseIdleStreams() {
  int closed = 0;
  for (const auto& file : directory_->FilesToTend()) closed += file->CheckHandles() ? 1 : 0;
  if (closed > 0) KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %d cache handle(s) closed", closed);
  return closed;
}

void QuotaThread::ClearFiles(long long total) {
  const std::string& path = directory_->path();
  auto files = directory_->FilesToTend();
  const long long limit = directory_->Limit();
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] %s",
           ("[CACHE] [" + path + "] Total cache : " + std::to_string(total) + "(limits : " + std::to_string(limit) +
            ")")
               .c_str());
  bool over_quota = total > limit;
  for (const auto& file : files) {
    KORV_TEST_POINT("quota: clearing a file");
    file->ClearOldCache(over_quota);
    // Files after the one that brought the directory under its limit get
    // the periodic clean-up only.
    if (over_quota) over_quota = MeasureDirectory(path) > limit;
  }
}

void QuotaThread::RunPassNow() {
  CloseIdleStreams();
  ClearFiles(MeasureDirectory(directory_->path()));
}

void QuotaThread::Run() {
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] Cache quota manager started");
  Chrono handle_watch;
  Chrono clear_watch;
  for (;;) {
    {
      MutexLock guard(lock_);
      if (stopping_) break;
    }
    const long long period = directory_->ClearPeriodMs();
    if (handle_watch.elapsed() > kHandleCheckMs) {
      CloseIdleStreams();
      handle_watch.reset();
    }
    long long total = 0;
    if (clear_watch.elapsed() > kMeasureMs || clear_watch.elapsed() > period) {
      total = MeasureDirectory(directory_->path());
    }
    if (clear_watch.elapsed() > period) {
      ClearFiles(total);
      clear_watch.reset();
    }
    KORV_TEST_POINT("quota: pass done");
    MutexLock guard(lock_);
    wake_.wait_for(lock_, kCycle, [this]() REQUIRES(lock_) { return stopping_; });
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] Cache quota manager stopped");
}
