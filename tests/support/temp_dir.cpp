#include "support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korv-test-XXXXXX";
  if (mkdtemp(&path_[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string& name, const std::string& contents) const {
  std::ofstream(File(name), std::ios::binary) << contents;
  return File(name);
}
