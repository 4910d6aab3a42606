#include "support/file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

std::string FileContents(const std::string& path) {
  std::ostringstream out;  // copied in blocks: byte by byte is slow under the thread sanitizer
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

long long FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

std::vector<std::string> SectorCacheFiles(const std::string& directory) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    if (entry.path().extension() == ".cache" && entry.is_regular_file()) files.push_back(entry.path().string());
  return files;
}

long long BytesInDirectory(const std::string& directory) {
  long long total = 0;
  std::error_code error;
  struct stat st;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (stat(entry.path().c_str(), &st) == 0) total += static_cast<long long>(st.st_blocks) * 512;
  }
  return total;
}

bool WriteBallast(const std::string& path, long long bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool made = fd >= 0 && (bytes == 0 || posix_fallocate(fd, 0, static_cast<off_t>(bytes)) == 0);
  return fd >= 0 && close(fd) == 0 && made;
}
