// Construction, settings, storage limit and the object table of Cache. The
// quota thread is in quota_thread.cpp.
#include "cache/cache_manager.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "cache/cache_obj.h"
#include "cache/default_settings.h"
#include "cache/logging.h"
#include "cache/number_text.h"
#include "common/platform.h"
#include "common/process.h"
#include "common/split.h"
#include "common/ini.h"
#include "common/file_io.h"

namespace {

struct Setting {
  const char* name;
  const char* json_path;
  const char* ini_key;
  uint64_t _CACHECONFIG::*field;
  uint64_t default_value;
};

const Setting kSettings[] = {
    {"rahit", "/cache/ra/hit", "ra_hit_streak", &_CACHECONFIG::rahit, kDefaultCacheConfig.rahit},
    {"ramin", "/cache/ra/min", "ra_min_size", &_CACHECONFIG::ramin, kDefaultCacheConfig.ramin},
    {"ramax", "/cache/ra/max", "ra_max_size", &_CACHECONFIG::ramax, kDefaultCacheConfig.ramax},
    {"readtimeout", "/cache/read/timeout", "read_timeout", &_CACHECONFIG::readtimeout,
     kDefaultCacheConfig.readtimeout},
    {"readfetchmax", "/cache/read/maxfetch", "max_fetch_from_origin", &_CACHECONFIG::readfetchmax,
     kDefaultCacheConfig.readfetchmax},
    {"clrperiod", "/cache/clear/period", "clear_period", &_CACHECONFIG::clrperiod, kDefaultCacheConfig.clrperiod},
    {"clrused", "/cache/clear/usedblock", "clear_used_block", &_CACHECONFIG::clrused, kDefaultCacheConfig.clrused},
    {"clrunused", "/cache/clear/unusedblock", "clear_unused_block", &_CACHECONFIG::clrunused,
     kDefaultCacheConfig.clrunused},
    {"clroverused", "/cache/clear/over/usedblock", "clear_used_block_when_quota_exceed",
     &_CACHECONFIG::clroverused, kDefaultCacheConfig.clroverused},
    {"clroverunused", "/cache/clear/over/unusedblock", "clear_unused_block_when_quota_exceed",
     &_CACHECONFIG::clroverunused, kDefaultCacheConfig.clroverunused},
};

// True when the [CACHE] section of `file` gives `key` a value. Lines are
// read in pieces of at most 2047 bytes, so any value fits the buffer.
bool HasSetting(const std::string& file, const char* key) {
  std::vector<char> value(2048);
  return GetPrivateProfileString("CACHE", key, "", value.data(), static_cast<int>(value.size()), file) > 0;
}

// Creates every component of `path` from the root; the result has a leading
// and a trailing "/" and no empty components.
std::string MakeDirectories(const std::string& path) {
  std::string built = "/";
  for (const std::string& piece : split(path, '/')) {
    if (piece.empty()) continue;
    built += piece + "/";
    // Owner only: the cache holds the contents of the client's files.
    if (mkdir(built.c_str(), 0700) != 0 && errno != EEXIST) {
      KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] Cache path not found : %s", built.c_str());
      throw static_cast<AERROR>(kErrCacheDirectory);
    }
  }
  // A regular file at the last component also answers EEXIST.
  DIR* dir = opendir(built.c_str());
  if (dir == nullptr) {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] Cache path not found : %s", built.c_str());
    throw static_cast<AERROR>(kErrCacheDirectory);
  }
  closedir(dir);
  return built;
}

}  // namespace

Cache::Cache(const char* path, unsigned long long limit) : limit_(static_cast<long long>(limit)) {
  objects_.max_load_factor(1.0f);
  // Compared signed: a request of 2^63 or more counts as negative here.
  if (limit_.load() < kMinimumLimit) limit_.store(kMinimumLimit);
  path_ = MakeDirectories(path != nullptr ? path : "");
  // Sector files without an index were left by a run that did not end (a
  // crash, a kill) and go; kept ones wait for their names to be opened.
  std::vector<FoundFile> found = FindKeptFiles(path_);
  long long kept_bytes = 0;
  for (const FoundFile& file : found) kept_bytes += std::max(0LL, CacheFileIo().DiskBytesAt(file.cache_path));
  FitLimitToVolume(kept_bytes);
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %s",
           ("Cache initialized : " + path_ + ", Storage limit : " + LocaleNumber(limit_.load()) + " bytes").c_str());

  const std::string settings_file = GetResourcePath() + "/" + "korv.ini";
  const bool settings_readable = std::ifstream(settings_file).good();
  for (const Setting& setting : kSettings) {
    // With a readable file a missing key reads as 0: the default applies
    // only when the file cannot be opened. A 0 that nobody wrote can stop
    // the cache (a read time-out of 0 fails every read), so it is reported.
    unsigned int value = GetPrivateProfileInt("CACHE", setting.ini_key,
                                              static_cast<unsigned int>(setting.default_value), settings_file);
    if (settings_readable && !HasSetting(settings_file, setting.ini_key)) {
      KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] %s has no key %s in [CACHE]: it reads as 0", settings_file.c_str(),
               setting.ini_key);
    }
    registry_.AddConfiguration(setting.name, setting.json_path, value);
  }
  // Off by default, so eviction keeps to its ages and periods; a client
  // that must never see the directory far over its limit turns it on.
  registry_.AddConfiguration("hardlimit", "/cache/clear/hard", 0u);
  // Off by default: files are deleted when their objects close.
  registry_.AddConfiguration("keep", "/cache/keep", 0u);
  ApplyConfig();
  AdoptKeptFiles(std::move(found));
  quota_thread_ = std::make_unique<QuotaThread>(static_cast<QuotaDirectory*>(this));
}

unsigned long long ManagerConfigLink::GetQuota() {
  MutexLock guard(lock_);
  return manager_ != nullptr ? manager_->GetQuota() : quota_;
}

_CACHECONFIG ManagerConfigLink::GetConfig() {
  MutexLock guard(lock_);
  return manager_ != nullptr ? manager_->GetConfig() : config_;
}

void ManagerConfigLink::Stored(long long delta) {
  stored_.fetch_add(delta);  // ordered before the look at waiting_ below
  {
    MutexLock guard(lock_);
    if (meter_ != nullptr) meter_->Stored(delta);
  }
  if (delta < 0 && waiting_.load() > 0) {
    MutexLock room(room_lock_);
    room_.notify_all();
  }
}

void ManagerConfigLink::SetCeiling(long long bytes) {
  MutexLock room(room_lock_);
  ceiling_.store(bytes, std::memory_order_relaxed);
  room_.notify_all();
}

void ManagerConfigLink::WaitForRoom() {
  auto has_room = [this] {
    return stored_.load() <= ceiling_.load(std::memory_order_relaxed);
  };
  if (has_room()) return;
  waiting_.fetch_add(1);
  {
    MutexLock room(room_lock_);
    room_.wait_for(room_lock_, kRoomWait, has_room);
  }
  waiting_.fetch_sub(1);
}

void ManagerConfigLink::Detach() {
  MutexLock guard(lock_);
  if (manager_ == nullptr) return;
  quota_ = manager_->GetQuota();
  config_ = manager_->GetConfig();
  manager_ = nullptr;
  meter_ = nullptr;
  SetCeiling(kNoCeiling);
}

Cache::~Cache() {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] Uninitialize cache...");
  // Before the table goes: closing an object waits for its fetch tasks,
  // which read the settings. Before the quota thread goes: once detached,
  // no file's report reaches Stored, which wakes the thread.
  link_->Detach();
  quota_thread_.reset();
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] Cache uninitialized");
}

void Cache::Stored(long long delta) {
  const uint64_t used = used_bytes_.fetch_add(static_cast<uint64_t>(delta)) + static_cast<uint64_t>(delta);
  if (delta > 0 && hard_limit_.load(std::memory_order_relaxed) && quota_thread_ &&
      static_cast<long long>(used) > limit_.load()) {
    quota_thread_->RequestPass();
  }
}

void Cache::UpdateCeiling() {
  const long long limit = limit_.load();
  link_->SetCeiling(hard_limit_.load(std::memory_order_relaxed) ? limit + limit / 16
                                                                 : ManagerConfigLink::kNoCeiling);
}

void Cache::ApplyConfig() {
  hard_limit_.store(std::atol(registry_.GetValue("hardlimit").c_str()) != 0, std::memory_order_relaxed);
  link_->SetKeepFiles(std::atol(registry_.GetValue("keep").c_str()) != 0);
  UpdateCeiling();
  MutexLock guard(settings_lock_);
  for (const Setting& setting : kSettings) {
    settings_.*setting.field = static_cast<uint64_t>(std::atol(registry_.GetValue(setting.name).c_str()));
  }
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] Cache configuration : %u, %u, %u, %u, %u, %u, %u, %u, %u, %u",
           static_cast<unsigned>(settings_.rahit), static_cast<unsigned>(settings_.ramin),
           static_cast<unsigned>(settings_.ramax), static_cast<unsigned>(settings_.readtimeout),
           static_cast<unsigned>(settings_.readfetchmax), static_cast<unsigned>(settings_.clrperiod),
           static_cast<unsigned>(settings_.clrused), static_cast<unsigned>(settings_.clrunused),
           static_cast<unsigned>(settings_.clroverused), static_cast<unsigned>(settings_.clroverunused));
}

_CACHECONFIG Cache::GetConfig() {
  MutexLock guard(settings_lock_);
  return settings_;
}

unsigned int Cache::SetConfiguration(const char* text) {
  if (text == nullptr) return kErrInvalidArgument;
  try {
    registry_.Parse(text);
    ApplyConfig();
  } catch (...) {
    return kErrJson;
  }
  return kOk;
}

unsigned long long Cache::GetLimit() { return static_cast<unsigned long long>(limit_.load()); }

unsigned long long Cache::GetUsedBytes() { return used_bytes_.load(); }

unsigned long long Cache::GetQuota() { return GetLimit(); }

unsigned int Cache::SetLimit(unsigned long long bytes) {
  // Compared unsigned, unlike the constructor's floor: 2^63 and more pass.
  if (bytes > static_cast<unsigned long long>(kMinimumLimit - 1)) {
    limit_.store(static_cast<long long>(bytes));
    AdjustLimit();
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %s",
             ("Storage limit changed : " + LocaleNumber(limit_.load()) + " bytes").c_str());
    return kOk;
  }
  // Reports the limit still in force, not the rejected request.
  KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] %s",
           ("Change cache storage limit requested but too small : Requested " + LocaleNumber(limit_.load()) +
            " bytes")
               .c_str());
  return kErrLimitTooSmall;
}

void Cache::FitLimitToVolume(long long kept_bytes) {
  long long free_bytes = 0;
  if (!VolumeFreeBytes(path_, &free_bytes)) return;
  long long cached = kept_bytes;
  for (const auto& file : FilesToTend()) {
    if (file->IsReadOnly()) cached += file->GetFileSize();
  }
  const long long available = cached + free_bytes;
  KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] %s",
           (" Cache path " + path_ + ", " + LocaleNumber(available) + " bytes left").c_str());
  if (limit_.load() > available) limit_.store(available / 2);
  UpdateCeiling();
}

std::vector<std::shared_ptr<CacheObj>> Cache::FilesToTend() {
  std::vector<std::shared_ptr<CacheObj>> files;
  MutexLock guard(objects_lock_);
  files.reserve(objects_.size() + kept_.size());
  for (const auto& entry : objects_) files.push_back(entry.second);
  for (const auto& entry : kept_) files.push_back(entry.second);
  return files;
}

void Cache::AdoptKeptFiles(std::vector<FoundFile> found) {
  MutexLock guard(objects_lock_);
  for (FoundFile& file : found) {
    std::vector<std::string> pieces = split(file.index.name, '/');
    if (pieces.empty() || pieces.back().empty()) {  // no client can open it
      CacheFileIo().Remove(file.index_path);
      CacheFileIo().Remove(file.cache_path);
      continue;
    }
    const std::string name = file.index.name;
    kept_.emplace(name, std::make_shared<CacheObj>(path_, pieces.back(), std::move(file), link_.get(), link_));
  }
}

std::shared_ptr<ICacheObj> Cache::Open(const char* name, char mode, long long size, IFetch* fetch) {
  return OpenVersion(name, mode, size, fetch, nullptr);
}

std::shared_ptr<ICacheObj> Cache::OpenVersion(const char* name, char mode, long long size, IFetch* fetch,
                                              const char* version) {
  if (name == nullptr) throw static_cast<AERROR>(kErrInvalidArgument);
  const std::string known_version = version != nullptr ? version : "";
  std::shared_ptr<CacheObj> object;
  std::shared_ptr<CacheObj> dropped;  // deleted after the table's lock
  {
    MutexLock guard(objects_lock_);
    auto it = objects_.find(name);
    if (it == objects_.end()) {
      // Names that share their last component share one cache file name.
      std::vector<std::string> pieces = split(name, '/');
      if (pieces.empty() || pieces.back().empty()) throw static_cast<AERROR>(kErrInvalidArgument);
      auto kept = kept_.find(name);
      const bool reuse = kept != kept_.end() && mode == 'r' && link_->KeepFiles();
      auto created = reuse ? kept->second
                           : std::make_shared<CacheObj>(path_, pieces.back(), mode, size, fetch, link_.get(), name,
                                                        link_, known_version);
      if (kept != kept_.end()) {
        if (reuse) created->ReuseFor(size, known_version);
        else dropped = std::move(kept->second);
        kept_.erase(kept);
      }
      it = objects_.emplace(name, std::move(created)).first;
    }
    object = it->second;
  }
  if (dropped) dropped->Close(true);
  // Outside the table's lock: the switch drops the read-only file, which
  // waits for its fetch tasks, and must not hold up the opening of others.
  if (mode == 'w' && object->IsReadOnly()) {
    KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] Cache found for %s but read-only. Convert to writable cache forcefully.",
             name);
    object->SetMode('w', size, fetch);
  }
  return object;
}

unsigned int Cache::Close(const char* name) {
  if (name == nullptr) return kOk;
  // Released after the table's lock: the last reference's destruction
  // waits for the file's fetch tasks, which must not hold up other files.
  std::shared_ptr<CacheObj> closing;
  {
    MutexLock guard(objects_lock_);
    auto it = objects_.find(name);
    if (it == objects_.end()) return kOk;
    closing = std::move(it->second);
    objects_.erase(it);
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] Close cache : %s", name);
    // Nobody else holds it: kept where the next Open finds it, and tended
    // (counted, cleared by age) meanwhile. One a client still holds is kept
    // when the client lets go of it, found by the next run.
    if (!link_->KeepFiles() || closing.use_count() != 1 || !closing->IsReadOnly() || kept_.count(name) != 0) {
      return kOk;
    }
    kept_.emplace(name, closing);
  }
  // Outside the table's lock: it waits for the file's fetch tasks.
  closing->SaveIndex();
  return kOk;
}

unsigned int Cache::Rehash(const char* old_name, const char* new_name, const char* new_file_name) {
  if (old_name == nullptr || new_name == nullptr) return kErrNotOpen;
  std::shared_ptr<CacheObj> object;
  std::shared_ptr<CacheObj> replaced;
  std::shared_ptr<CacheObj> replaced_kept;
  {
    MutexLock guard(objects_lock_);
    auto old_entry = objects_.find(old_name);
    if (old_entry == objects_.end()) return kErrNotOpen;
    object = old_entry->second;
    objects_.erase(old_entry);
    auto taken = objects_.find(new_name);
    if (taken != objects_.end()) {
      replaced = std::move(taken->second);
      objects_.erase(taken);
    }
    // A kept file of the new name holds the replaced file's bytes.
    auto kept = kept_.find(new_name);
    if (kept != kept_.end()) {
      replaced_kept = std::move(kept->second);
      kept_.erase(kept);
    }
    objects_[new_name] = object;
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] Rehash cache : %s to %s", old_name, new_name);
  }
  // Outside the table's lock: closing the replaced file waits for its fetch
  // tasks, and the renamed object's lock may be held by a long call; neither
  // may hold up the other files.
  if (replaced) replaced->Close(true);
  if (replaced_kept) replaced_kept->Close(true);
  object->SetHashIndex(new_name);
  object->ChangeFileName(new_file_name != nullptr ? new_file_name : "");
  return kOk;
}
