#include "common/split.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

using Pieces = std::vector<std::string>;

TEST(SplitTest, EmptyPiecesAndNoTrimming) {
  const std::regex slash("/");
  EXPECT_EQ(split("a/b/c", slash), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split("a//b", slash), (Pieces{"a", "", "b"}));
  EXPECT_EQ(split("/a", slash), (Pieces{"", "a"}));
  EXPECT_EQ(split("a/", slash), (Pieces{"a"}));
  EXPECT_EQ(split("a//", slash), (Pieces{"a", ""}));
  EXPECT_EQ(split("abc", slash), (Pieces{"abc"}));
  EXPECT_EQ(split("", slash), (Pieces{""}));

  const std::regex equals("=");
  EXPECT_EQ(split("key=", equals), (Pieces{"key"}));
  EXPECT_EQ(split("key = v=w", equals), (Pieces{"key ", " v", "w"}));

  EXPECT_EQ(split(std::wstring(L"/\u00e9t\u00e9/"), std::wregex(L"/")),
            (std::vector<std::wstring>{L"", L"\u00e9t\u00e9"}));
}
