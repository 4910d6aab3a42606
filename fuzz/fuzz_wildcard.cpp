// Fuzzes wildcard matching.
//
// Input: the expression, a line break, the name (everything from a zero byte
// on is cut off, as the functions take C strings). Both widths and both case
// modes run on every input. Expressions made of "*", "?" and literal
// characters only are compared with a reference matcher; the DOS wildcards
// ('"', '<', '>') have no reference here and only must not crash or run away.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/wildcard.h"
#include "fuzz_check.h"

namespace {

// Copies into a heap block of exactly the string's size, so that
// AddressSanitizer reports any read past the terminator.
template <typename CharT>
std::unique_ptr<CharT[]> Exact(const std::basic_string<CharT>& text) {
  std::unique_ptr<CharT[]> copy(new CharT[text.size() + 1]);
  text.copy(copy.get(), text.size());
  copy[text.size()] = CharT();
  return copy;
}

bool IsAscii(const std::string& s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Classic glob by dynamic programming: "*" any run, "?" exactly one
// character, anything else itself (after toupper when ignoring case).
bool ReferenceMatch(const std::string& expression, const std::string& name, bool ignore_case) {
  auto fold = [&](char c) { return ignore_case ? std::toupper(static_cast<unsigned char>(c)) : c; };
  // row[j]: the expression so far matches the first j characters of name.
  std::vector<char> row(name.size() + 1, 0);
  row[0] = 1;
  for (char c : expression) {
    std::vector<char> next(name.size() + 1, 0);
    for (size_t j = 0; j <= name.size(); ++j) {
      if (c == '*') {
        next[j] = row[j] || (j > 0 && next[j - 1]);
      } else {
        next[j] = j > 0 && row[j - 1] && (c == '?' || fold(c) == fold(name[j - 1]));
      }
    }
    row.swap(next);
  }
  return row.back() != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::string input(reinterpret_cast<const char*>(data), size);
  input = input.substr(0, input.find('\0'));
  const size_t split = input.find('\n');
  const std::string expression = input.substr(0, split);
  const std::string name = split == std::string::npos ? std::string() : input.substr(split + 1);
  const std::wstring wide_expression = Widen(expression);
  const std::wstring wide_name = Widen(name);

  for (bool ignore_case : {false, true}) {
    const bool narrow = IsNameInExpressionA(Exact(expression).get(), Exact(name).get(), ignore_case);
    const bool wide = IsNameInExpression(Exact(wide_expression).get(), Exact(wide_name).get(), ignore_case);
    // The widths fold case with different functions; outside ASCII they may
    // legitimately differ when ignoring case.
    if (!ignore_case || (IsAscii(expression) && IsAscii(name))) {
      Check(narrow == wide, "the narrow and wide matchers disagree");
    }
    if (expression.find_first_of("\"<>") == std::string::npos) {
      Check(narrow == ReferenceMatch(expression, name, ignore_case), "the matcher disagrees with the reference");
    }
  }
  return 0;
}
