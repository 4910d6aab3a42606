#include "cache/file_names.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <vector>

#include "common/file_io.h"
#include "common/process.h"
#include "common/split.h"

std::vector<std::string> DirectoryEntries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) return names;
  while (dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(listing);
  return names;
}

bool IsFileOrDirectory(const std::string& path) {
  return CacheFileIo().Exists(path);
}

std::string TagFromName(const std::string& name) {
  std::vector<std::string> parts = split(name, ':');
  return parts.size() >= 2 ? parts[1] : name;
}

namespace {
constexpr size_t kUuidLength = 36;
constexpr char kSectorCacheSuffix[] = ".cache";
}  // namespace

std::string NewSectorCacheFileName() { return NewUUID() + kSectorCacheSuffix; }

bool IsSectorCacheFileName(const std::string& name) { return IsUuidNamed(name, kSectorCacheSuffix); }

std::string KeptIndexPathOf(const std::string& cache_path) {
  const std::string suffix = kSectorCacheSuffix;
  const bool sector_file = cache_path.size() >= suffix.size() &&
                           cache_path.compare(cache_path.size() - suffix.size(), suffix.size(), suffix) == 0;
  return (sector_file ? cache_path.substr(0, cache_path.size() - suffix.size()) : cache_path) + ".index";
}

bool IsUuidNamed(const std::string& name, const std::string& suffix) {
  if (name.size() != kUuidLength + suffix.size() || name.compare(kUuidLength, suffix.size(), suffix) != 0) {
    return false;
  }
  for (size_t i = 0; i < kUuidLength; ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? name[i] != '-' : !std::isxdigit(static_cast<unsigned char>(name[i]))) return false;
  }
  return true;
}
