#include "common/split.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

using Pieces = std::vector<std::string>;

TEST(SplitTest, PiecesBetweenSeparatorsByCharacterAndByPattern) {
  const std::pair<const char*, Pieces> kCases[] = {
      {"a//b", {"a", "", "b"}}, {"/a", {"", "a"}}, {"a/", {"a"}}, {"a//", {"a", ""}},
      {"/", {""}}, {"", {""}}, {"a/b = c/", {"a", "b = c"}},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(split(c.first, '/'), c.second) << c.first;
    EXPECT_EQ(split(c.first, std::regex("/")), c.second) << c.first;
  }
  EXPECT_EQ(split("a1b22c", std::regex("[0-9]+")), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split(std::wstring(L"/\u00e9/"), std::wregex(L"/")), (std::vector<std::wstring>{L"", L"\u00e9"}));
}
