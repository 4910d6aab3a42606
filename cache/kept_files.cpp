#include "cache/kept_files.h"

#include <map>

#include "cache/file_names.h"
#include "cache/logging.h"
#include "common/file_io.h"
#include "common/platform.h"

namespace {

constexpr char kTemporarySuffix[] = ".tmp";

std::string DirectoryOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

// The whole file at `path` and its length; false when it cannot be read.
bool ReadWholeFile(const std::string& path, std::string* bytes, long long* length) {
  FileIo& io = CacheFileIo();
  FILE* stream = io.Open(path, "r");
  if (stream == nullptr) return false;
  *length = io.Size(stream);
  bool read = *length >= 0 && io.Seek(stream, 0) == 0;
  if (read && bytes != nullptr) {
    bytes->resize(static_cast<size_t>(*length));
    read = io.Read(stream, &(*bytes)[0], bytes->size()) == *length;
  }
  io.Close(stream);
  return read;
}

}  // namespace

std::vector<FoundFile> FindKeptFiles(const std::string& dir) {
  FileIo& io = CacheFileIo();
  int removed = 0;
  auto remove_cache_file = [&](const std::string& path) { removed += io.Remove(path) == 0 ? 1 : 0; };
  std::map<std::string, FoundFile> by_name;
  for (const std::string& name : DirectoryEntries(dir)) {
    if (IsUuidNamed(name, std::string(".index") + kTemporarySuffix)) {
      io.Remove(dir + name);  // an index whose writing was cut short
      continue;
    }
    if (IsUuidNamed(name, ".index")) {
      if (!io.Exists(dir + name.substr(0, name.size() - 6) + ".cache")) io.Remove(dir + name);
      continue;
    }
    if (!IsSectorCacheFileName(name)) continue;
    FoundFile found;
    found.cache_path = dir + name;
    found.index_path = KeptIndexPathOf(found.cache_path);
    if (!io.Exists(found.index_path)) {
      remove_cache_file(found.cache_path);  // being written when its run ended
      continue;
    }
    std::string bytes;
    long long index_length = 0;
    if (!ReadWholeFile(found.index_path, &bytes, &index_length) || !DecodeKeptIndex(bytes, &found.index) ||
        !ReadWholeFile(found.cache_path, nullptr, &found.file_length)) {
      KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] Kept cache index is damaged, its cache file removed : %s",
               found.index_path.c_str());
      remove_cache_file(found.cache_path);
      io.Remove(found.index_path);
      continue;
    }
    auto kept = by_name.emplace(found.index.name, found);
    if (kept.second) continue;
    // Two runs kept the same name (an object still held after its close):
    // the later one's bytes win.
    FoundFile& older = kept.first->second.index.kept_wall < found.index.kept_wall ? kept.first->second : found;
    remove_cache_file(older.cache_path);
    io.Remove(older.index_path);
    if (&older != &found) kept.first->second = std::move(found);
  }
  if (removed > 0) KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] %d cache file(s) of an earlier run removed", removed);
  std::vector<FoundFile> result;
  for (auto& entry : by_name) result.push_back(std::move(entry.second));
  return result;
}

bool WriteKeptIndex(const std::string& path, const std::string& bytes) {
  FileIo& io = CacheFileIo();
  const std::string temporary = path + kTemporarySuffix;
  FILE* stream = io.Open(temporary, "w");
  if (stream == nullptr) return false;
  bool written = io.Write(stream, bytes.data(), bytes.size()) == bytes.size() && io.Sync(stream) == 0;
  written = io.Close(stream) == 0 && written;
  written = written && io.Rename(temporary, path) == 0;
  if (!written) {
    io.Remove(temporary);
    return false;
  }
  SyncDirectory(DirectoryOf(path));
  return true;
}

void RemoveKeptIndex(const std::string& path) {
  if (CacheFileIo().Remove(path) == 0) SyncDirectory(DirectoryOf(path));
}
