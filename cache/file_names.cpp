#include "cache/file_names.h"

#include <sys/stat.h>

#include <regex>
#include <vector>

#include "common/file_io.h"
#include "common/split.h"

bool IsFileOrDirectory(const std::string& path) {
  return CacheFileIo().Exists(path);
}

std::string TagFromName(const std::string& name) {
  static const std::regex kColon(":");
  std::vector<std::string> parts = split(name, kColon);
  return parts.size() >= 2 ? parts[1] : name;
}
