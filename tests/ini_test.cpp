#include "common/ini.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/temp_dir.h"

TEST(IniTest, LookupsAndBufferSizes) {
  std::string s = " \t\r\n\v\f\xa0x y\f\v\n\r\t ";
  EXPECT_EQ(trim(s), "\xa0x y");  // ASCII whitespace only
  TempDir dir;
  // 2047 bytes before "hidden=9" and before "[next]": each tail is read as a line of its own.
  const std::string file = dir.Write(
      "korv.ini", "top=1\n[other]\n  [ Cache ]  \r\n\n  Ra_Hit_Streak=5\r\nspaced = 7\n"
                  "twice=8=9\nempty=\nnegative=-1\npadded= 42abc\nfiller=" + std::string(2040, 'a') + "hidden=9\n" +
                  std::string(2047, 'b') + "[next]\ny=2\nkey=abcd\n");
  // The number from GetPrivateProfileInt (default 3), the text from
  // GetPrivateProfileString (default "dflt").
  const struct { const char *section, *key; unsigned int number; const char* text; } kCases[] = {
      {" CACHE\t", "RA_HIT_STREAK", 5, "5"},  // sections trimmed, both folded
      {"cache", " ra_hit_streak", 0, "dflt"},  // the key is not trimmed
      {"cache", "spaced ", 7, " 7"},           // blanks before "=" belong to the key
      {"cache", "twice", 8, "8"},
      {"cache", "empty", 0, "dflt"},
      {"cache", "negative", 0xFFFFFFFFu, "-1"},
      {"cache", "padded", 42, " 42abc"},
      {"cache", "hidden", 9, "9"},
      {"cache", "y", 0, "dflt"},  // "[next]" ended the section
      {"next", "y", 2, "2"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.section) + "/" + c.key);
    EXPECT_EQ(GetPrivateProfileInt(c.section, c.key, 3, file), c.number);
    char buffer[8];
    EXPECT_EQ(GetPrivateProfileString(c.section, c.key, "dflt", buffer, sizeof(buffer), file),
              static_cast<int>(std::strlen(c.text)));
    EXPECT_STREQ(buffer, c.text);
  }
  EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, dir.File("missing.ini")), 3u);

  // text: null when the buffer is untouched.
  const struct { const char* default_value; int size, result; const char* text; } kSizes[] = {
      {"xy", 5, 4, "abcd"},  // the value and its zero must fit
      {"xyz", 4, 3, "xyz"},  // a value that does not fit gives the default, if that fits
      {"wxyz", 4, 0, nullptr},
      {"xyz", -1, 0, nullptr},
  };
  for (const auto& c : kSizes) {
    char buffer[8] = "zzzzzzz";
    EXPECT_EQ(GetPrivateProfileString("next", "key", c.default_value, buffer, c.size, file), c.result) << c.size;
    EXPECT_STREQ(buffer, c.text ? c.text : "zzzzzzz") << c.size;
  }
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "xyz", nullptr, 8, file), 0);
}
