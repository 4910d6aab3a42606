#include "cache/file_names.h"

#include <sys/stat.h>

#include <vector>

#include "common/split.h"

bool IsFileOrDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode));
}

std::string TagFromName(const std::string& name) {
  std::vector<std::string> parts = split(name, ':');
  return parts.size() >= 2 ? parts[1] : name;
}
