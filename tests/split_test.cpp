#include "common/split.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

using Pieces = std::vector<std::string>;

TEST(SplitTest, PiecesBetweenSeparatorsByCharacterAndByPattern) {
  const struct {
    const char* text;
    Pieces pieces;
  } kCases[] = {
      {"a//b", {"a", "", "b"}}, {"/a", {"", "a"}}, {"a/", {"a"}}, {"a//", {"a", ""}},
      {"/", {""}}, {"", {""}}, {"a/b = c/", {"a", "b = c"}},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(split(c.text, '/'), c.pieces) << c.text;
    EXPECT_EQ(split(c.text, std::regex("/")), c.pieces) << c.text;
  }
  EXPECT_EQ(split("a1b22c", std::regex("[0-9]+")), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split(std::wstring(L"/\u00e9t\u00e9/"), std::wregex(L"/")),
            (std::vector<std::wstring>{L"", L"\u00e9t\u00e9"}));
}
