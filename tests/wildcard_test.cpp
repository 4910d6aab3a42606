#include "common/wildcard.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

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

// Matches with both character widths, which must agree. ASCII only.
bool Match(const std::string& expression, const std::string& name, bool ignore_case = false) {
  std::wstring wide_expression(expression.begin(), expression.end());
  std::wstring wide_name(name.begin(), name.end());
  bool narrow = IsNameInExpressionA(Exact(expression).get(), Exact(name).get(), ignore_case);
  bool wide = IsNameInExpression(Exact(wide_expression).get(), Exact(wide_name).get(), ignore_case);
  EXPECT_EQ(narrow, wide) << "\"" << expression << "\" against \"" << name << "\"";
  return narrow;
}

}  // namespace

TEST(WildcardTest, MatchesByTable) {
  const struct {
    const char *expression, *name;
    bool ignore_case, match;
  } kCases[] = {
      {"*", "", false, true},
      {"*.txt", "a.txt", false, true},
      {"*.txt", ".txt", false, true},
      {"*.txt", "a.txt.bak", false, false},
      {"*.txt", "a.txt.txt", false, true},  // must not settle on the first ".txt"
      {"a*b*c", "aXbYbZc", false, true},
      {"a*.c", "a.c", false, true},  // a star inside matches nothing too
      {"a?c", "abc", false, true},
      {"a?c", "ac", false, false},
      {"a?", "a", false, false},
      {"", "", false, true},
      {"", "a", false, false},
      {"abc", "abcd", false, false},
      {"A*C", "abxc", true, true},
      {"ABC", "abc", false, false},
      {"ABC", "abc", true, true},
      // DOS dot: a "." or nothing.
      {"a\"", "a", false, true},
      {"a\"", "a.", false, true},
      {"a\"", "ab", false, false},
      // DOS star: up to the last dot, never swallowing it.
      {"<.txt", "a.b.txt", false, true},
      {"<.txt", "a.txt", false, true},
      {"<.<", "a.b.c", false, true},
      {"<", "a.b", false, false},
      {"a<", "abc", false, true},
      {"<", "abc", false, false},  // nothing at the start of a dotless name
      // DOS question mark: nothing at the last dot, an earlier dot is consumed.
      {"a>c", "abc", false, true},
      {"a>.b", "a.b", false, true},
      {"a>b.c", "a.b.c", false, true},
      {"a>", "a", false, false},
      // An expression outlasting the name never reads past it; only these
      // may match nothing: * < "
      {"a*<\"*", "a", false, true},
      {"abc?", "abc", false, false},
      {"abc>", "abc", false, false},
      {"a?b", "a", false, false},
      {"a>b", "a", false, false},
      {"a?>", "a", false, false},
      {"a??????????????????", "ab", false, false},
      {"*?*?*?*?*?*?*?*?", "abc", false, false},
      {"<>>>>>>>>>>>>>>>>>", "x.y", false, false},
      {"a.txt.with.a.longer.tail", "a.txt", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.expression) + " ~ " + c.name);
    EXPECT_EQ(Match(c.expression, c.name, c.ignore_case), c.match);
  }
}

TEST(WildcardTest, ManyStarsFinishQuicklyAndNullsNeverMatch) {
  // Plain backtracking takes exponential time on these.
  std::string name(100, 'a');
  std::string stars;
  for (int i = 0; i < 20; ++i) stars += "*a";
  EXPECT_FALSE(Match(stars + "*b", name));
  EXPECT_TRUE(Match(stars + "*", name));
  EXPECT_FALSE(Match(std::string(20, '<') + "b", name + ".c"));
  // Null pointers never match.
  EXPECT_FALSE(IsNameInExpressionA(nullptr, "a", false));
  EXPECT_FALSE(IsNameInExpressionA("*", nullptr, false));
  EXPECT_FALSE(IsNameInExpression(nullptr, L"a", false));
  EXPECT_FALSE(IsNameInExpression(L"*", nullptr, true));
}
