// Fuzzes the INI reader with properties that need no model of the syntax:
// the string form writes only inside its buffer and returns the length of
// what it wrote; the number form reads the value the string form finds (0
// when there is none, the file being readable).
//
// Input: a first line "section|key|default|size" (missing fields are empty;
// size is the buffer size in decimal, 64 when absent), then the file's
// contents. Every section and key named in the contents is looked up too, so
// that lookups hit as often as they miss.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/ini.h"
#include "common/split.h"
#include "fuzz_check.h"

namespace {

void Query(const std::string& file, const std::string& section, const std::string& key,
           const std::string& default_value, int size) {
  std::vector<char> buffer(static_cast<size_t>(std::max(size, 0)) + 2, '#');  // guard bytes around it
  const int result = GetPrivateProfileString(section, key, default_value, buffer.data() + 1, size, file);
  Check(buffer.front() == '#' && buffer.back() == '#', "GetPrivateProfileString wrote outside the buffer");
  Check(result == 0 || (result < size && buffer[static_cast<size_t>(result) + 1] == '\0'),
        "GetPrivateProfileString returned a count other than the length it wrote");

  // "\x01" as the default tells a found value from the default.
  std::vector<char> value(20000);
  const int found = GetPrivateProfileString(section, key, "\x01", value.data(), static_cast<int>(value.size()), file);
  const bool missing = found == 1 && value[0] == '\x01';
  Check(GetPrivateProfileInt(section, key, 12345u, file) ==
            (missing ? 0u : static_cast<unsigned int>(std::atoi(value.data()))),
        "GetPrivateProfileInt disagrees with the value GetPrivateProfileString found");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16384) return 0;  // long inputs only slow the run down
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t line_end = input.find('\n');
  const std::string contents = line_end == std::string::npos ? std::string() : input.substr(line_end + 1);

  static const std::string file = "/tmp/korv-fuzz-ini-" + std::to_string(getpid()) + ".ini";
  std::FILE* out = std::fopen(file.c_str(), "wb");
  if (out == nullptr) return 0;
  std::fwrite(contents.data(), 1, contents.size(), out);
  std::fclose(out);

  std::vector<std::string> fields = split(input.substr(0, line_end), '|');
  fields.resize(4);
  const std::string size_field = fields[3].substr(0, 5);
  const bool numeric = !size_field.empty() && std::all_of(size_field.begin(), size_field.end(), ::isdigit);
  const int buffer_size = numeric ? std::atoi(size_field.c_str()) : 64;
  Query(file, fields[0], fields[1], fields[2], buffer_size);

  // Sections and keys named in the file, paired up.
  std::vector<std::string> sections, keys;
  for (std::string line : split(contents, '\n')) {
    trim(line);
    if (line.size() >= 3 && line.front() == '[' && line.back() == ']' && sections.size() < 4) {
      sections.push_back(line.substr(1, line.size() - 2));
    } else if (line.find('=') != std::string::npos && keys.size() < 6) {
      keys.push_back(line.substr(0, line.find('=')));
    }
  }
  for (const std::string& section : sections) {
    for (const std::string& key : keys) Query(file, section, key, "d", buffer_size);
  }
  std::remove(file.c_str());
  return 0;
}
