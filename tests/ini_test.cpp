#include "common/ini.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/temp_dir.h"

TEST(IniTest, TrimRemovesAsciiWhitespaceOnly) {
  std::string s = " \t\r\n\v\fx y\f\v\n\r\t ";
  EXPECT_EQ(&trim(s), &s);
  EXPECT_EQ(s, "x y");
  // 0xA0 (a no-break space in Latin-1) and UTF-8 bytes stay.
  std::string high = "\xa0 caf\xc3\xa9\xa0";
  EXPECT_EQ(trim(high), "\xa0 caf\xc3\xa9\xa0");
}

TEST(IniTest, LookupsInAReadableFile) {
  TempDir dir;
  // 2047 bytes before "hidden=9" and before "[next]": each tail is read as a
  // line of its own.
  const std::string file = dir.Write(
      "korv.ini", "top=1\n[other]\nra_hit_streak=1\n[broken\nafter_broken=2\n  [ Cache ]  \r\n\n#commented=4\n  Ra_Hit_Streak=5\r\n"
                  "spaced = 7\ntwice=8=9\nempty=\nnegative=-1\npadded= 42abc\nfiller=" +
                      std::string(2040, 'a') + "hidden=9\n" + std::string(2047, 'b') + "[next]\ny=2\n" +
                      "[cache]\nlater=6\n");
  // The number from GetPrivateProfileInt (default 3), the text from
  // GetPrivateProfileString (default "dflt").
  const struct {
    const char *section, *key;
    unsigned int number;
    const char* text;
  } kCases[] = {
      {" CACHE\t", "RA_HIT_STREAK", 5, "5"},  // sections trimmed, both folded
      {"cache", " ra_hit_streak", 0, "dflt"},  // the key is not trimmed
      {"cache", "spaced", 0, "dflt"},          // blanks before "=" belong to the key
      {"cache", "spaced ", 7, " 7"},
      {"cache", "twice", 8, "8"},
      {"cache", "empty", 0, "dflt"},
      {"cache", "negative", 0xFFFFFFFFu, "-1"},
      {"cache", "padded", 42, " 42abc"},
      {"cache", "commented", 0, "dflt"},  // no comment syntax
      {"cache", "#commented", 4, "4"},
      {"cache", "hidden", 9, "9"},
      {"cache", "y", 0, "dflt"},      // "[next]" ended the section
      {"next", "y", 2, "2"},
      {"cache", "later", 0, "dflt"},  // only the first "cache" section counts
      {"cache", "top", 0, "dflt"},
      {"other", "ra_hit_streak", 1, "1"},
      {"other", "after_broken", 0, "dflt"},  // any "[" line ends a section
      {"missing", "top", 0, "dflt"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.section) + "/" + c.key);
    EXPECT_EQ(GetPrivateProfileInt(c.section, c.key, 3, file), c.number);
    char buffer[32];
    EXPECT_EQ(GetPrivateProfileString(c.section, c.key, "dflt", buffer, sizeof(buffer), file),
              static_cast<int>(std::strlen(c.text)));
    EXPECT_STREQ(buffer, c.text);
  }
  char buffer[4096];
  EXPECT_EQ(GetPrivateProfileString("cache", "filler", "", buffer, sizeof(buffer), file), 2040);
}

TEST(IniTest, StringBufferSizeRules) {
  TempDir dir;
  const std::string file = dir.Write("s.ini", "[cache]\nkey=abcd\n");
  const struct {
    const char* default_value;
    int size, result;
    const char* text;  // null: the buffer is untouched
  } kCases[] = {
      {"xy", 5, 4, "abcd"},  // the value and its zero must fit
      {"xyz", 4, 3, "xyz"},  // a value that does not fit gives the default, if that fits
      {"wxyz", 4, 0, nullptr},
      {"xyz", -1, 0, nullptr},
      {"", 0, 0, nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.size);
    char buffer[8];
    std::memset(buffer, 'z', sizeof(buffer));
    EXPECT_EQ(GetPrivateProfileString("cache", "key", c.default_value, buffer, c.size, file), c.result);
    if (c.text != nullptr) {
      EXPECT_STREQ(buffer, c.text);
    } else {
      EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string(sizeof(buffer), 'z'));
    }
  }
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "xyz", nullptr, 8, file), 0);
}

TEST(IniTest, DefaultOnlyWhenFileCannotBeOpened) {
  TempDir dir;
  const std::string missing = dir.File("missing.ini");
  EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, missing), 3u);
  char buffer[8];
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "dflt", buffer, sizeof(buffer), missing), 4);
  EXPECT_STREQ(buffer, "dflt");
  EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, dir.Write("empty.ini", "")), 0u);
  // Permissions do not stop root, so only other users can check this.
  if (geteuid() != 0) {
    const std::string locked = dir.Write("locked.ini", "[cache]\nkey=5\n");
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, locked), 3u);
  }
}
