// Runs a fuzz target once on every input given: files, or directories whose
// regular files are taken in name order. This is how the corpora run as plain
// tests with any compiler, and how a finding is replayed under a debugger.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsRegularFile(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The regular files directly inside `dir`, sorted so that runs are repeatable.
std::vector<std::string> FilesIn(const std::string& dir) {
  std::vector<std::string> files;
  DIR* stream = opendir(dir.c_str());
  if (stream == nullptr) return files;
  while (dirent* entry = readdir(stream)) {
    std::string path = dir + "/" + entry->d_name;
    if (entry->d_name[0] != '.' && IsRegularFile(path)) files.push_back(path);
  }
  closedir(stream);
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
    return 2;
  }
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (IsDirectory(arg)) {
      std::vector<std::string> files = FilesIn(arg);
      inputs.insert(inputs.end(), files.begin(), files.end());
    } else if (IsRegularFile(arg)) {
      inputs.push_back(arg);
    } else {
      std::fprintf(stderr, "%s: no such file or directory\n", arg.c_str());
      return 2;
    }
  }
  // An empty corpus would make the test pass without running anything.
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs found\n");
    return 2;
  }
  for (const std::string& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
    // A heap block of exactly the input's size, so that AddressSanitizer
    // reports any read past its end, as under libFuzzer.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.empty() ? 1 : bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), bytes.size());
  }
  std::fprintf(stderr, "%zu input(s) replayed\n", inputs.size());
  return 0;
}
