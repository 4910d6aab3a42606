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

// `path` itself when it is a regular file, the regular files directly inside
// it (sorted, so that runs are repeatable) when it is a directory.
std::vector<std::string> Inputs(const std::string& path) {
  std::vector<std::string> files;
  struct stat st {};
  if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(path);
  if (DIR* dir = opendir(path.c_str())) {
    while (dirent* entry = readdir(dir)) {
      const std::string file = path + "/" + entry->d_name;
      if (entry->d_name[0] != '.' && stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(file);
    }
    closedir(dir);
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::vector<std::string> files = Inputs(argv[i]);
    inputs.insert(inputs.end(), files.begin(), files.end());
  }
  // An empty corpus would make the test pass without running anything.
  if (inputs.empty()) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no inputs found)\n", argv[0]);
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
