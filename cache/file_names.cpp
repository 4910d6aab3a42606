#include "cache/file_names.h"

#include <sys/stat.h>

#include <vector>

#include "common/file_io.h"
#include "common/split.h"

bool IsFileOrDirectory(const std::string& path) {
  return CacheFileIo().Exists(path);
}

std::string TagFromName(const std::string& name) {
  std::vector<std::string> parts = split(name, ':');
  return parts.size() >= 2 ? parts[1] : name;
}
