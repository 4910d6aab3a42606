#include "common/wildcard.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

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
  const std::wstring wide_expression(expression.begin(), expression.end()), wide_name(name.begin(), name.end());
  const bool narrow = IsNameInExpressionA(Exact(expression).get(), Exact(name).get(), ignore_case);
  EXPECT_EQ(narrow, IsNameInExpression(Exact(wide_expression).get(), Exact(wide_name).get(), ignore_case))
      << "\"" << expression << "\" against \"" << name << "\"";
  return narrow;
}

}  // namespace

TEST(WildcardTest, MatchesByTable) {
  const std::string a100(100, 'a');
  std::string stars;  // plain backtracking takes exponential time on these
  for (int i = 0; i < 20; ++i) stars += "*a";
  const std::vector<std::pair<std::string, std::string>> matching = {
      {"*", ""}, {"*.txt", ".txt"}, {"a*b*c", "aXbYbZc"}, {"a?c", "abc"}, {"", ""}, {stars + "*", a100},
      {"*.txt", "a.txt.txt"}, {"a*.c", "a.c"},  // no settling on the first ".txt"; an inner star matches nothing too
      {"a\"", "a"}, {"a\"", "a."},              // DOS dot: a "." or nothing
      {"<.txt", "a.b.txt"}, {"<.<", "a.b.c"}, {"a<", "abc"},  // DOS star: up to the last dot, never swallowing it
      // DOS question mark: nothing at the last dot, an earlier dot is consumed; only * < " match nothing at the end.
      {"a>c", "abc"}, {"a>.b", "a.b"}, {"a>b.c", "a.b.c"}, {"a*<\"*", "a"},
  }, failing = {
      {"*.txt", "a.txt.bak"}, {"a?c", "ac"}, {"", "a"}, {"abc", "abcd"}, {"ABC", "abc"}, {"a\"", "ab"}, {"<", "a.b"},
      {"a>", "a"}, {stars + "*b", a100}, {std::string(20, '<') + "b", a100 + ".c"},
      // An expression outlasting the name never reads past it.
      {"abc?", "abc"}, {"a?b", "a"}, {"a>b", "a"}, {"a?>", "a"}, {"*?*?*?*?*?*?*?*?", "abc"}, {"<>>>>>>>>>>", "x.y"},
      {"a.txt.with.a.longer.tail", "a.txt"},
  };
  for (const auto& c : matching) EXPECT_TRUE(Match(c.first, c.second)) << c.first << " ~ " << c.second;
  for (const auto& c : failing) EXPECT_FALSE(Match(c.first, c.second)) << c.first << " ~ " << c.second;
  EXPECT_TRUE(Match("A*C", "abxc", true) && Match("ABC", "abc", true));
  EXPECT_FALSE(IsNameInExpressionA(nullptr, "a", false) || IsNameInExpressionA("*", nullptr, false));
  EXPECT_FALSE(IsNameInExpression(nullptr, L"a", false) || IsNameInExpression(L"*", nullptr, true));
}
