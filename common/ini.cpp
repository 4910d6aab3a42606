#include "common/ini.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "common/split.h"

namespace {

// The classic locale's spaces, tested by value so that bytes of UTF-8 text
// (at or above 0x80) are never taken for whitespace whatever the locale.
bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::string& ToLower(std::string& s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Longest line piece read at once, plus its terminating zero.
constexpr int kLineBufferSize = 2048;

// Searches the first section named `section` (already trimmed and folded)
// for `key` and puts its value in *value. Returns false when the key is not
// there or the file cannot be opened; *opened tells the two apart.
bool FindValue(const std::string& section, std::string key, const std::string& file,
               bool* opened, std::string* value) {
  std::FILE* stream = std::fopen(file.c_str(), "r");
  *opened = stream != nullptr;
  if (stream == nullptr) return false;

  bool found = false;
  bool in_section = false;
  char buffer[kLineBufferSize];
  for (;;) {
    std::memset(buffer, 0, sizeof(buffer));
    if (std::fgets(buffer, sizeof(buffer), stream) == nullptr) break;
    std::string line(buffer);
    trim(line);

    if (!in_section) {
      if (line.size() >= 3 && line.front() == '[' && line.back() == ']') {
        std::string name = line.substr(1, line.size() - 2);
        if (ToLower(trim(name)) == section) {
          ToLower(key);
          in_section = true;
        }
      }
      continue;
    }

    if (line.empty()) continue;
    // Any "[" line ends the section, complete header or not; later sections
    // of the same name are never searched.
    if (line.front() == '[') break;
    // The pieces are deliberately not trimmed: "key =value" names the key
    // "key " and so never matches, and settings files must not have blanks
    // before the "=". A line that ends at its "=" yields one piece and is
    // skipped, so a found value is never empty.
    std::vector<std::string> pieces = split(line, '=');
    if (pieces.size() < 2) continue;
    if (ToLower(pieces[0]) == key) {
      *value = pieces[1];
      found = true;
      break;
    }
  }
  std::fclose(stream);
  return found;
}

// Copies `text` with its zero into `buffer` if it fits in `size` bytes.
int CopyIfFits(const std::string& text, char* buffer, int size) {
  if (static_cast<long long>(text.size()) >= size) return 0;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
}

}  // namespace

std::string& trim(std::string& s) {
  size_t end = s.size();
  while (end > 0 && IsBlank(s[end - 1])) --end;
  s.erase(end);
  size_t begin = 0;
  while (begin < s.size() && IsBlank(s[begin])) ++begin;
  s.erase(0, begin);
  return s;
}

int GetPrivateProfileString(std::string section, std::string key, std::string defaultValue,
                            char* buffer, int size, std::string file) {
  if (buffer == nullptr || size == 0) return 0;
  ToLower(trim(section));
  bool opened = false;
  std::string value;
  if (FindValue(section, std::move(key), file, &opened, &value)) {
    int copied = CopyIfFits(value, buffer, size);
    if (copied != 0) return copied;
  }
  return CopyIfFits(defaultValue, buffer, size);
}

unsigned int GetPrivateProfileInt(std::string section, std::string key,
                                  unsigned int defaultValue, std::string file) {
  ToLower(trim(section));
  bool opened = false;
  std::string value;
  if (!FindValue(section, std::move(key), file, &opened, &value)) {
    // The default stands in only for a file that cannot be opened; a
    // readable file without the key gives 0.
    return opened ? 0 : defaultValue;
  }
  // atoi's int wraps to the unsigned form, so "-1" reads as 0xFFFFFFFF.
  return static_cast<unsigned int>(std::atoi(value.c_str()));
}
