// Fuzzes split() on one separator character.
//
// Input: a mode byte (unused, kept for the corpus), a line whose first byte
// is the separator, a line break, the text. The character form must cut
// exactly as the regular-expression forms (narrow and wide) do with the
// escaped character; no piece holds the separator; joined with it, the
// pieces give back the text without a final separator.
#include <cstdint>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "common/split.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3 || size > 4096) return 0;
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const char separator = rest[0];
  const size_t line = rest.find('\n');
  const std::string text = line == std::string::npos ? std::string() : rest.substr(line + 1);

  const std::vector<std::string> pieces = split(text, separator);
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    Check(pieces[i].find(separator) == std::string::npos, "a piece holds the separator");
    joined += (i > 0 ? std::string(1, separator) : std::string()) + pieces[i];
  }
  const bool final_separator = !text.empty() && text.back() == separator;
  Check(joined == (final_separator ? text.substr(0, text.size() - 1) : text), "the pieces do not make the text");

  if (separator == '\0') return 0;  // no place in a pattern written as text
  std::string pattern(1, separator);
  if (std::strchr("^$\\.*+?()[]{}|", separator) != nullptr) pattern.insert(0, "\\");
  Check(split(text, std::regex(pattern)) == pieces, "the character and pattern forms disagree");
  const std::vector<std::wstring> wide = split(Widen(text), std::wregex(Widen(pattern)));
  Check(wide.size() == pieces.size(), "the wide form cut a different number of pieces");
  for (size_t i = 0; i < wide.size(); ++i) Check(wide[i] == Widen(pieces[i]), "the wide form cut elsewhere");
  return 0;
}
