#include "listing_cache.h"

#include <cerrno>

#include "stderr_log.h"

int ListingCache::List(const std::string& directory, std::vector<OriginEntry>* entries, DriveTime* taken) {
  DriveTime unused;
  if (taken == nullptr) taken = &unused;
  const DriveTime now = clock_();
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = listings_.find(directory);
    if (it != listings_.end() && now - it->second.taken < ttl_) {
      *entries = it->second.entries;
      *taken = it->second.taken;
      return 0;
    }
  }
  std::string error;
  std::vector<OriginEntry> fresh;
  const OriginStatus status = origin_->List(directory, &fresh, &error);
  std::lock_guard<std::mutex> guard(lock_);
  if (status == OriginStatus::kOk) {
    listings_[directory] = Listing{now, fresh};
    *entries = std::move(fresh);
    *taken = now;
    return 0;
  }
  if (status == OriginStatus::kNotFound) {
    listings_.erase(directory);
    return -ENOENT;
  }
  // An origin out of reach keeps the last listing it gave.
  auto it = listings_.find(directory);
  if (it != listings_.end()) {
    *entries = it->second.entries;
    *taken = it->second.taken;
    return 0;
  }
  ClientLog(LOGLEVEL_ERROR, "list %s: origin %s: %s: %s", directory.c_str(), origin_->Describe().c_str(),
            OriginStatusText(status), error.c_str());
  return -EIO;
}

bool ListingCache::FreshEntry(const std::string& directory, const std::string& name, OriginEntry* entry,
                              DriveTime* taken) {
  const DriveTime now = clock_();
  std::lock_guard<std::mutex> guard(lock_);
  auto it = listings_.find(directory);
  if (it == listings_.end() || now - it->second.taken >= ttl_) return false;
  for (const OriginEntry& listed : it->second.entries) {
    if (listed.name != name) continue;
    *entry = listed;
    *taken = it->second.taken;
    return true;
  }
  return false;
}

void ListingCache::Forget(const std::string& directory) {
  std::lock_guard<std::mutex> guard(lock_);
  listings_.erase(directory);
}

void ListingCache::ForgetTree(const std::string& directory) {
  std::lock_guard<std::mutex> guard(lock_);
  listings_.erase(directory);
  const std::string prefix = directory == "/" ? directory : directory + "/";
  auto it = listings_.lower_bound(prefix);
  while (it != listings_.end() && it->first.compare(0, prefix.size(), prefix) == 0) it = listings_.erase(it);
}
