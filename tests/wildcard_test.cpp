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

TEST(WildcardTest, StarQuestionMarkAndLiterals) {
  EXPECT_TRUE(Match("*", ""));
  EXPECT_TRUE(Match("*.txt", "a.txt"));
  EXPECT_TRUE(Match("*.txt", ".txt"));
  EXPECT_FALSE(Match("*.txt", "a.txt.bak"));
  EXPECT_TRUE(Match("*.txt", "a.txt.txt"));  // must not settle on the first ".txt"
  EXPECT_TRUE(Match("a*b*c", "aXbYbZc"));
  EXPECT_TRUE(Match("a?c", "abc"));
  EXPECT_FALSE(Match("a?c", "ac"));
  EXPECT_FALSE(Match("a?", "a"));
  EXPECT_TRUE(Match("", ""));
  EXPECT_FALSE(Match("", "a"));
  EXPECT_FALSE(Match("abc", "abcd"));

  EXPECT_TRUE(Match("A*C", "abxc", true));
  EXPECT_FALSE(Match("ABC", "abc", false));
}

TEST(WildcardTest, DosWildcards) {
  EXPECT_TRUE(Match("a\"", "a"));  // DOS dot: a "." or nothing
  EXPECT_TRUE(Match("a\"", "a."));
  EXPECT_FALSE(Match("a\"", "ab"));

  EXPECT_TRUE(Match("<.txt", "a.b.txt"));  // DOS star: up to the last dot
  EXPECT_TRUE(Match("<.txt", "a.txt"));
  EXPECT_TRUE(Match("<.<", "a.b.c"));
  EXPECT_FALSE(Match("<", "a.b"));  // never swallows the last dot
  EXPECT_TRUE(Match("a<", "abc"));
  EXPECT_FALSE(Match("<", "abc"));  // matches nothing at the start of a dotless name

  EXPECT_TRUE(Match("a>c", "abc"));      // DOS question mark
  EXPECT_TRUE(Match("a>.b", "a.b"));     // nothing at the last dot
  EXPECT_TRUE(Match("a>b.c", "a.b.c"));  // an earlier dot is consumed
  EXPECT_FALSE(Match("a>", "a"));
}

TEST(WildcardTest, ExpressionOutlastingNameNeverReadsPastIt) {
  EXPECT_TRUE(Match("a*<\"*", "a"));  // only these may match nothing
  EXPECT_FALSE(Match("abc?", "abc"));
  EXPECT_FALSE(Match("abc>", "abc"));
  EXPECT_FALSE(Match("a?b", "a"));  // a step past the end must stop the walk
  EXPECT_FALSE(Match("a>b", "a"));
  EXPECT_FALSE(Match("a?>", "a"));
  EXPECT_FALSE(Match("a??????????????????", "ab"));
  EXPECT_FALSE(Match("*?*?*?*?*?*?*?*?", "abc"));
  EXPECT_FALSE(Match("<>>>>>>>>>>>>>>>>>", "x.y"));
  EXPECT_FALSE(Match("a.txt.with.a.longer.tail", "a.txt"));
}

TEST(WildcardTest, ManyStarsFinishQuickly) {
  // Plain backtracking takes exponential time on these.
  std::string name(100, 'a');
  std::string stars;
  for (int i = 0; i < 20; ++i) stars += "*a";
  EXPECT_FALSE(Match(stars + "*b", name));
  EXPECT_TRUE(Match(stars + "*", name));
  EXPECT_FALSE(Match(std::string(20, '<') + "b", name + ".c"));
}

TEST(WildcardTest, NullPointersNeverMatch) {
  EXPECT_FALSE(IsNameInExpressionA(nullptr, "a", false));
  EXPECT_FALSE(IsNameInExpressionA("*", nullptr, false));
  EXPECT_FALSE(IsNameInExpression(nullptr, L"a", false));
  EXPECT_FALSE(IsNameInExpression(L"*", nullptr, true));
}
