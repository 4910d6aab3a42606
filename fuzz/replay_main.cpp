// Runs a fuzz target once on every input given: files, or directories whose
// regular files are taken in name order. This is how the corpora run as plain
// tests with any compiler, and how a finding is replayed under a debugger.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code not_a_directory;
    if (!std::filesystem::is_directory(argv[i])) inputs.push_back(argv[i]);
    for (const auto& entry : std::filesystem::directory_iterator(argv[i], not_a_directory))
      if (entry.is_regular_file()) inputs.push_back(entry.path());
  }
  std::sort(inputs.begin(), inputs.end());
  // An empty corpus would make the test pass without running anything.
  if (inputs.empty()) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no inputs found)\n", argv[0]);
    return 2;
  }
  for (const std::string& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    const std::string read((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A heap block of exactly the input's size, as under libFuzzer: AddressSanitizer sees a read past its end.
    const std::vector<uint8_t> bytes(read.begin(), read.end());
    std::fprintf(stderr, "replaying %s\n", path.c_str());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return 0;
}
