#include "listing_cache.h"

#include <algorithm>
#include <cerrno>

#include "stderr_log.h"

namespace {

std::string ParentPath(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string LastName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool IsHidden(const std::string& path) { return LastName(path).compare(0, 1, ".") == 0; }

// `path` itself or a path beneath it.
bool IsAtOrBeneath(const std::string& candidate, const std::string& path) {
  return candidate.compare(0, path.size(), path) == 0 &&
         (candidate.size() == path.size() || candidate[path.size()] == '/' || path == "/");
}

// The paths of `paths` at or beneath `path`. "/a.b" sorts between "/a" and
// "/a/x", so the walk goes on while the names start with `path`.
std::vector<std::string> AtOrBeneath(const std::set<std::string>& paths, const std::string& path) {
  std::vector<std::string> found;
  for (auto it = paths.lower_bound(path); it != paths.end() && it->compare(0, path.size(), path) == 0; ++it) {
    if (IsAtOrBeneath(*it, path)) found.push_back(*it);
  }
  return found;
}

OriginEntry EntryOf(const std::string& path, const OriginFileInfo& info) {
  OriginEntry entry;
  entry.name = LastName(path);
  entry.is_directory = info.is_directory;
  entry.size = info.is_directory ? 0 : info.size;
  entry.mtime = info.mtime;
  entry.validator = info.validator;
  return entry;
}

}  // namespace

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
  if (status == OriginStatus::kOk) AddHidden(directory, &fresh);
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

void ListingCache::AddHidden(const std::string& directory, std::vector<OriginEntry>* entries) {
  std::vector<std::string> wanted;
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (const std::string& path : AtOrBeneath(hidden_, directory)) {
      const std::string name = LastName(path);
      if (ParentPath(path) == directory &&
          std::none_of(entries->begin(), entries->end(), [&](const OriginEntry& e) { return e.name == name; })) {
        wanted.push_back(path);
      }
    }
  }
  for (const std::string& path : wanted) {
    OriginFileInfo info;
    std::string error;
    const OriginStatus status = origin_->Stat(path, &info, &error);
    if (status == OriginStatus::kOk) entries->push_back(EntryOf(path, info));
    if (status != OriginStatus::kNotFound) continue;
    std::lock_guard<std::mutex> guard(lock_);
    hidden_.erase(path);
  }
}

void ListingCache::RememberIfHidden(const std::string& path) {
  if (IsHidden(path)) hidden_.insert(path);
}

int ListingCache::Find(const std::string& path, OriginEntry* entry, DriveTime* taken) {
  DriveTime unused;
  if (taken == nullptr) taken = &unused;
  std::vector<OriginEntry> entries;
  const int listed = List(ParentPath(path), &entries, taken);
  if (listed != 0) return listed;
  const std::string name = LastName(path);
  for (const OriginEntry& listed_entry : entries) {
    if (listed_entry.name != name) continue;
    *entry = listed_entry;
    return 0;
  }
  if (!IsHidden(path)) return -ENOENT;
  OriginFileInfo info;
  std::string error;
  const OriginStatus status = origin_->Stat(path, &info, &error);
  if (status == OriginStatus::kNotFound) return -ENOENT;
  if (status != OriginStatus::kOk) {
    ClientLog(LOGLEVEL_ERROR, "look up %s: origin %s: %s: %s", path.c_str(), origin_->Describe().c_str(),
              OriginStatusText(status), error.c_str());
    return -EIO;
  }
  *entry = EntryOf(path, info);
  *taken = clock_();
  std::lock_guard<std::mutex> guard(lock_);
  RememberIfHidden(path);
  auto it = listings_.find(ParentPath(path));
  if (it != listings_.end() && std::none_of(it->second.entries.begin(), it->second.entries.end(),
                                            [&](const OriginEntry& e) { return e.name == name; })) {
    it->second.entries.push_back(*entry);
  }
  return 0;
}

void ListingCache::Added(const std::string& path) {
  std::lock_guard<std::mutex> guard(lock_);
  RememberIfHidden(path);
  listings_.erase(ParentPath(path));
}

void ListingCache::Stored(const std::string& path, const OriginFileInfo& info, DriveTime told) {
  std::lock_guard<std::mutex> guard(lock_);
  RememberIfHidden(path);
  auto it = listings_.find(ParentPath(path));
  if (it == listings_.end() || it->second.taken > told) return;
  const OriginEntry stored = EntryOf(path, info);
  std::vector<OriginEntry>& entries = it->second.entries;
  auto same = std::find_if(entries.begin(), entries.end(), [&](const OriginEntry& e) { return e.name == stored.name; });
  if (same != entries.end()) *same = stored;
  else entries.push_back(stored);
}

bool ListingCache::FreshlyAbsent(const std::string& directory, const std::string& name) {
  if (name.empty() || name[0] == '.') return false;
  const DriveTime now = clock_();
  std::lock_guard<std::mutex> guard(lock_);
  auto it = listings_.find(directory);
  return it != listings_.end() && now - it->second.taken < ttl_ &&
         std::none_of(it->second.entries.begin(), it->second.entries.end(),
                      [&](const OriginEntry& e) { return e.name == name; });
}

void ListingCache::Removed(const std::string& path) {
  ForgetTree(path);
  std::lock_guard<std::mutex> guard(lock_);
  listings_.erase(ParentPath(path));
  for (const std::string& gone : AtOrBeneath(hidden_, path)) hidden_.erase(gone);
}

void ListingCache::Moved(const std::string& from, const std::string& to) {
  std::vector<std::string> moved;
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (const std::string& path : AtOrBeneath(hidden_, from)) moved.push_back(to + path.substr(from.size()));
  }
  Removed(from);
  Removed(to);  // what `from` replaced
  std::lock_guard<std::mutex> guard(lock_);
  for (const std::string& path : moved) RememberIfHidden(path);
  RememberIfHidden(to);
}
