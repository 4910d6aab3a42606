#include "cache/quota_thread.h"

#include <algorithm>
#include <chrono>

#include "cache/cache_obj.h"
#include "cache/file_names.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "common/process.h"
#include "common/test_point.h"
#include <utility>

namespace {

constexpr long long kHandleCheckMs = 5000;
constexpr long long kMeasureMs = 1000;
constexpr auto kCycle = std::chrono::milliseconds(300);
// After a requested pass that found nothing to drop (everything reserved or
// being written), the next comes no sooner than this: the thread must not
// keep measuring the directory without a pause.
constexpr auto kRequestedPassGap = std::chrono::milliseconds(10);

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
    const long long size = CacheFileIo().DiskBytesAt(path + "/" + name);
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
    const unsigned long long stored_before = directory_->StoredBytes();
    file->ClearOldCache(over_quota);
    // Files after the one that brought the directory under its limit get
    // the periodic clean-up only. The directory is measured again only
    // when what the files store changed: with thousands of files, measuring
    // after each would make the pass quadratic.
    if (over_quota && directory_->StoredBytes() != stored_before) over_quota = MeasureDirectory(path) > limit;
  }
  if (directory_->HardLimit()) HoldTheLimit(files, MeasureDirectory(path));
}

bool QuotaThread::HoldTheLimit(const std::vector<std::shared_ptr<CacheObj>>& files, long long used) {
  const long long limit = directory_->Limit();
  // To a quarter of the limit below it: room for the reads that go on
  // while the pass runs, before the next one.
  return used <= limit || DropLeastRecentlyRead(files, used - limit + limit / 4);
}

bool QuotaThread::DropLeastRecentlyRead(const std::vector<std::shared_ptr<CacheObj>>& files, long long bytes) {
  std::vector<std::vector<SectorAge>> ages_by_file;
  std::vector<SectorAge> ages;
  for (const auto& file : files) {
    ages_by_file.push_back(file->SectorAges());
    ages.insert(ages.end(), ages_by_file.back().begin(), ages_by_file.back().end());
  }
  if (ages.empty()) return false;
  std::sort(ages.begin(), ages.end(),
            [](const SectorAge& a, const SectorAge& b) { return a.access_time < b.access_time; });
  // The last read time to drop up to: the oldest sectors that together
  // hold `bytes`. Sectors read since the ages were taken are kept.
  SteadyTime cutoff = ages.front().access_time;
  long long freed = 0;
  for (const SectorAge& age : ages) {
    cutoff = age.access_time;
    freed += age.size;
    if (freed >= bytes) break;
  }
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] Over the storage limit: dropping %lld bytes of least recently read data",
           freed);
  // Files that free the most go first, and the pass stops once they free
  // `bytes`: while it drops thousands of small files one by one, a file
  // being read at full speed would take the directory far over its limit.
  std::vector<std::pair<long long, size_t>> order;
  for (size_t i = 0; i < files.size(); ++i) {
    long long droppable = 0;
    for (const SectorAge& age : ages_by_file[i]) droppable += age.access_time <= cutoff ? age.size : 0;
    if (droppable > 0) order.emplace_back(droppable, i);
  }
  std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  long long dropped = 0;
  for (const auto& entry : order) {
    files[entry.second]->DropReadBefore(cutoff);
    dropped += entry.first;
    if (dropped >= bytes) break;
  }
  return true;
}

void QuotaThread::RequestPass() {
  MutexLock guard(lock_);
  if (pass_requested_) return;
  pass_requested_ = true;
  wake_.notify_all();
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
    bool requested = false;
    {
      MutexLock guard(lock_);
      if (stopping_) break;
      requested = std::exchange(pass_requested_, false);
    }
    const long long period = directory_->ClearPeriodMs();
    // A requested pass runs alone: files are streaming in meanwhile.
    if (!requested && handle_watch.elapsed() > kHandleCheckMs) {
      CloseIdleStreams();
      handle_watch.reset();
    }
    long long total = 0;
    if ((!requested && clear_watch.elapsed() > kMeasureMs) || clear_watch.elapsed() > period) {
      total = MeasureDirectory(directory_->path());
    }
    if (clear_watch.elapsed() > period) {
      ClearFiles(total);
      clear_watch.reset();
      requested = false;
    } else if (requested) {
      // Only what the limit needs: the ages are the periodic pass's. What
      // the files report is counted as they store, so the directory (whose
      // measurement takes longer than a fast origin needs to fill the
      // margin) is not measured here.
      KORV_TEST_POINT("quota: holding the limit");
      requested = !HoldTheLimit(directory_->FilesToTend(), static_cast<long long>(directory_->StoredBytes()));
    }
    KORV_TEST_POINT("quota: pass done");
    MutexLock guard(lock_);
    // A requested pass that could drop nothing waits a little before the next.
    if (requested) wake_.wait_for(lock_, kRequestedPassGap, [this]() REQUIRES(lock_) { return stopping_; });
    wake_.wait_for(lock_, kCycle, [this]() REQUIRES(lock_) { return stopping_ || pass_requested_; });
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] Cache quota manager stopped");
}
