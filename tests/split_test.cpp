#include "common/split.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

using Pieces = std::vector<std::string>;

TEST(SplitTest, PiecesBetweenSeparatorsByCharacterAndByPattern) {
  const struct {
    const char* text;
    char separator;
    Pieces pieces;
  } kCases[] = {
      {"a/b/c", '/', {"a", "b", "c"}},
      {"a//b", '/', {"a", "", "b"}},
      {"/a", '/', {"", "a"}},
      {"a/", '/', {"a"}},
      {"a//", '/', {"a", ""}},
      {"/", '/', {""}},
      {"abc", '/', {"abc"}},
      {"", '/', {""}},
      {"key=", '=', {"key"}},
      {"key = v=w", '=', {"key ", " v", "w"}},
      {"a.b.", '.', {"a", "b"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(split(c.text, c.separator), c.pieces);
    EXPECT_EQ(split(c.text, std::regex(std::string("[") + c.separator + "]")), c.pieces);
  }
  EXPECT_EQ(split("a1b22c", std::regex("[0-9]+")), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split(std::wstring(L"/\u00e9t\u00e9/"), std::wregex(L"/")),
            (std::vector<std::wstring>{L"", L"\u00e9t\u00e9"}));
}
