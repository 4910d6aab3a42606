#include "bench/scratch_dir.h"

#include <cstdlib>
#include <filesystem>
#include <vector>

ScratchDir::ScratchDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korv_bench.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) != nullptr) path_ = std::string(name.data()) + "/";
}

ScratchDir::~ScratchDir() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}
