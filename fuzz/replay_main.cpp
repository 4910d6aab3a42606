// Runs a fuzz target once on every input given: files, or directories whose
// regular files are taken in name order. This is how the corpora run as plain
// tests with any compiler, and how a finding is replayed under a debugger.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    if (fs::is_regular_file(argv[i], error)) inputs.push_back(argv[i]);
    std::vector<std::string> files;  // sorted, so that runs are repeatable
    for (const auto& entry : fs::directory_iterator(argv[i], error))
      if (entry.is_regular_file() && entry.path().filename().string()[0] != '.') files.push_back(entry.path());
    std::sort(files.begin(), files.end());
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
