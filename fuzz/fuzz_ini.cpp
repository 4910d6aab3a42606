// Fuzzes the INI reader against a reference reading of the syntax that
// common/ini.h describes.
//
// Input: a first line "section|key|default|size" (missing fields are empty;
// size is the buffer size in decimal, 64 when absent), then the file's
// contents. Besides that query, every section and key named in the contents
// is looked up too, so that lookups hit as often as they miss.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/ini.h"

namespace {

void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz_ini: %s\n", what);
    std::abort();
  }
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::string Trimmed(std::string s) {
  size_t end = s.size();
  while (end > 0 && IsBlank(s[end - 1])) --end;
  size_t begin = 0;
  while (begin < end && IsBlank(s[begin])) ++begin;
  return s.substr(begin, end - begin);
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The lines as the reader sees them: pieces of at most 2047 bytes ending at
// a line break, each cut at its first zero byte (the reader takes the piece
// as a C string).
std::vector<std::string> ReaderLines(const std::string& contents) {
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < contents.size()) {
    size_t end = at;
    while (end < contents.size() && end - at < 2047) {
      if (contents[end++] == '\n') break;
    }
    std::string piece = contents.substr(at, end - at);
    lines.push_back(piece.substr(0, piece.find('\0')));
    at = end;
  }
  return lines;
}

// Text between the "=" signs; a final "=" adds no empty piece.
std::vector<std::string> EqualsPieces(const std::string& line) {
  std::vector<std::string> pieces;
  size_t at = 0;
  for (;;) {
    size_t next = line.find('=', at);
    if (next == std::string::npos) {
      pieces.push_back(line.substr(at));
      break;
    }
    pieces.push_back(line.substr(at, next - at));
    at = next + 1;
    if (at == line.size()) break;
  }
  return pieces;
}

// The documented lookup: whether `key` is found in the first section named
// `section`, and its value.
bool ReferenceFind(const std::string& contents, const std::string& section, const std::string& key,
                   std::string* value) {
  const std::string wanted_section = Lower(Trimmed(section));
  const std::string wanted_key = Lower(key);
  bool in_section = false;
  for (const std::string& raw : ReaderLines(contents)) {
    const std::string line = Trimmed(raw);
    if (!in_section) {
      if (line.size() >= 3 && line.front() == '[' && line.back() == ']' &&
          Lower(Trimmed(line.substr(1, line.size() - 2))) == wanted_section) {
        in_section = true;
      }
      continue;
    }
    if (line.empty()) continue;
    if (line.front() == '[') return false;
    std::vector<std::string> pieces = EqualsPieces(line);
    if (pieces.size() < 2) continue;
    if (Lower(pieces[0]) == wanted_key) {
      *value = pieces[1];
      return true;
    }
  }
  return false;
}

std::string Field(const std::vector<std::string>& fields, size_t i) { return i < fields.size() ? fields[i] : ""; }

std::vector<std::string> SplitOn(const std::string& text, char separator) {
  std::vector<std::string> out;
  size_t at = 0;
  for (;;) {
    size_t next = text.find(separator, at);
    out.push_back(text.substr(at, next == std::string::npos ? std::string::npos : next - at));
    if (next == std::string::npos) break;
    at = next + 1;
  }
  return out;
}

void Query(const std::string& file, const std::string& contents, const std::string& section,
           const std::string& key, const std::string& default_value, int size) {
  std::string value;
  const bool found = ReferenceFind(contents, section, key, &value);

  // The string form, with guard bytes around the buffer to catch overruns.
  const int capacity = std::max(size, 0);
  std::vector<char> buffer(static_cast<size_t>(capacity) + 2, '#');
  char* const start = buffer.data() + 1;
  const int result = GetPrivateProfileString(section, key, default_value, start, size, file);
  Check(buffer.front() == '#' && buffer.back() == '#', "GetPrivateProfileString wrote outside the buffer");
  int expected = 0;
  std::string expected_text;
  bool copied = false;
  if (size != 0) {
    if (found && !value.empty() && static_cast<long long>(value.size()) < size) {
      expected = static_cast<int>(value.size());
      expected_text = value;
      copied = true;
    } else if (static_cast<long long>(default_value.size()) < size) {
      expected = static_cast<int>(default_value.size());
      expected_text = default_value;
      copied = true;
    } else if (found && value.empty()) {
      copied = true;  // an empty value is copied, then counts as nothing
    }
  }
  Check(result == expected, "GetPrivateProfileString returned an unexpected count");
  if (copied) {
    Check(std::memcmp(start, expected_text.c_str(), expected_text.size() + 1) == 0,
          "GetPrivateProfileString copied unexpected text");
  }
  if (!copied) {
    Check(std::all_of(buffer.begin(), buffer.end(), [](char c) { return c == '#'; }),
          "GetPrivateProfileString changed a buffer it had nothing for");
  }

  // The number form.
  const unsigned int number = GetPrivateProfileInt(section, key, 12345u, file);
  const unsigned int expected_number = found ? static_cast<unsigned int>(std::atoi(value.c_str())) : 0u;
  Check(number == expected_number, "GetPrivateProfileInt returned an unexpected number");
}

const std::string& ScratchFile();

void RemoveScratchFile() { std::remove(ScratchFile().c_str()); }

// One file per process, rewritten for every input.
const std::string& ScratchFile() {
  static const std::string path = [] {
    const char* base = std::getenv("TMPDIR");
    return std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korv-fuzz-ini-" +
           std::to_string(getpid()) + ".ini";
  }();
  // Registered once `path` is complete, so that it runs before `path` goes.
  static const bool removed_at_exit = std::atexit(RemoveScratchFile) == 0;
  (void)removed_at_exit;
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16384) return 0;  // long inputs only slow the run down
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t line_end = input.find('\n');
  const std::string query_line = input.substr(0, line_end);
  const std::string contents = line_end == std::string::npos ? std::string() : input.substr(line_end + 1);

  // trim: nothing blank is left at either end, and the rest is untouched.
  std::string trimmed = contents;
  trim(trimmed);
  Check(trimmed == Trimmed(contents), "trim disagrees with the reference");

  const std::string& file = ScratchFile();
  {
    std::FILE* out = std::fopen(file.c_str(), "wb");
    if (out == nullptr) return 0;
    std::fwrite(contents.data(), 1, contents.size(), out);
    std::fclose(out);
  }

  const std::vector<std::string> fields = SplitOn(query_line, '|');
  const std::string size_field = Field(fields, 3).substr(0, 5);
  int buffer_size = 64;
  if (!size_field.empty() && std::all_of(size_field.begin(), size_field.end(), ::isdigit)) {
    buffer_size = std::atoi(size_field.c_str());
  }
  Query(file, contents, Field(fields, 0), Field(fields, 1), Field(fields, 2), buffer_size);

  // Sections and keys named in the file, paired up.
  std::vector<std::string> sections;
  std::vector<std::string> keys;
  for (const std::string& raw : ReaderLines(contents)) {
    const std::string line = Trimmed(raw);
    if (line.size() >= 3 && line.front() == '[' && line.back() == ']') {
      if (sections.size() < 4) sections.push_back(line.substr(1, line.size() - 2));
    } else if (line.find('=') != std::string::npos) {
      if (keys.size() < 6) keys.push_back(line.substr(0, line.find('=')));
    }
  }
  for (const std::string& section : sections) {
    for (const std::string& key : keys) Query(file, contents, section, key, "d", buffer_size);
  }

  // A file that cannot be opened gives the defaults.
  char small[4] = {'#', '#', '#', '#'};
  Check(GetPrivateProfileString("s", "k", "ab", small, 3, file + ".missing") == 2 &&
            std::strcmp(small, "ab") == 0,
        "a missing file did not give the default text");
  Check(GetPrivateProfileInt("s", "k", 77u, file + ".missing") == 77u, "a missing file did not give the default");
  return 0;
}
