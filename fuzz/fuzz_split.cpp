// Fuzzes split().
//
// Input: a mode character, the pattern bytes, a line break, the text.
//  'L' (and any byte not named below): every regex special character of the
//      pattern is escaped, so the pattern is the literal byte string; split
//      must cut the text exactly where a plain search for that string does,
//      in both widths.
//  'R': the pattern is used as a regular expression, restricted so that no
//      pattern can take exponential time: no groups, no escapes, no counted
//      repetition, at most two quantifiers and none on another, short texts.
//      Patterns the regex grammar refuses throw std::regex_error from the
//      regex's constructor, which is the caller's business, not split's; the
//      pieces must still be the text between matches, in order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "common/split.h"

namespace {

void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz_split: %s\n", what);
    std::abort();
  }
}

// The documented result for a literal separator: the text between
// non-overlapping leftmost occurrences; no empty piece after a final
// occurrence; the whole text when there is none.
std::vector<std::string> ReferenceSplit(const std::string& text, const std::string& separator) {
  std::vector<std::string> pieces;
  size_t at = 0;
  bool any = false;
  for (;;) {
    const size_t found = text.find(separator, at);
    if (found == std::string::npos) break;
    any = true;
    pieces.push_back(text.substr(at, found - at));
    at = found + separator.size();
  }
  if (!any || at < text.size()) pieces.push_back(text.substr(at));
  return pieces;
}

std::string Escaped(const std::string& literal) {
  std::string pattern;
  for (char c : literal) {
    if (std::strchr("^$\\.*+?()[]{}|", c) != nullptr) pattern.push_back('\\');
    pattern.push_back(c);
  }
  return pattern;
}

std::wstring Widen(const std::string& s) {
  std::wstring wide;
  for (char c : s) wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
  return wide;
}

void LiteralMode(std::string literal, const std::string& text) {
  // A zero byte has no place in a pattern written as text.
  literal.erase(std::remove(literal.begin(), literal.end(), '\0'), literal.end());
  if (literal.empty() || literal.size() > 64) return;
  const std::string pattern = Escaped(literal);
  const std::vector<std::string> pieces = split(text, std::regex(pattern));
  Check(pieces == ReferenceSplit(text, literal), "split disagrees with a plain search for the separator");

  const std::vector<std::wstring> wide = split(Widen(text), std::wregex(Widen(pattern)));
  Check(wide.size() == pieces.size(), "the wide split cut a different number of pieces");
  for (size_t i = 0; i < wide.size(); ++i) Check(wide[i] == Widen(pieces[i]), "the wide split cut elsewhere");
}

void RegexMode(const std::string& raw, const std::string& text) {
  if (raw.size() > 12 || text.size() > 32) return;
  std::string pattern;
  int quantifiers = 0;
  bool after_quantifier = false;
  for (char c : raw) {
    if (c < 0x20 || c > 0x7e) continue;
    const bool quantifier = std::strchr("*+?", c) != nullptr;
    // A quantifier on a quantifier ("a**") nests repetitions, which the
    // backtracking matcher takes exponential time over.
    const bool escape = std::strchr("(){}\\", c) != nullptr ||
                        (quantifier && (after_quantifier || ++quantifiers > 2));
    if (escape) pattern.push_back('\\');
    pattern.push_back(c);
    after_quantifier = quantifier && !escape;
  }
  std::regex compiled;
  try {
    compiled = std::regex(pattern);
  } catch (const std::regex_error&) {
    return;
  }
  const std::vector<std::string> pieces = split(text, compiled);
  Check(!pieces.empty(), "split returned no piece");
  // The pieces lie in the text in order, each after the one before.
  size_t at = 0;
  size_t total = 0;
  for (size_t i = 0; i < pieces.size(); ++i) {
    const size_t found = i == 0 ? (text.compare(0, pieces[0].size(), pieces[0]) == 0 ? 0 : std::string::npos)
                                : text.find(pieces[i], at);
    Check(found != std::string::npos, "a piece is not in the text after the one before");
    at = found + pieces[i].size();
    total += pieces[i].size();
  }
  Check(total <= text.size(), "the pieces are longer than the text");
  if (!std::regex_search(text, compiled)) Check(pieces.size() == 1 && pieces[0] == text, "no match, yet cut");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  const char mode = static_cast<char>(data[0]);
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t line = rest.find('\n');
  const std::string pattern = rest.substr(0, line);
  const std::string text = line == std::string::npos ? std::string() : rest.substr(line + 1);
  if (mode == 'R') {
    RegexMode(pattern, text);
  } else {
    LiteralMode(pattern, text);
  }
  return 0;
}
