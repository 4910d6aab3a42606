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

TEST(IniTest, SectionAndKeyMatching) {
  TempDir dir;
  std::string file = dir.Write("korv.ini",
                               "top=1\n"
                               "[other]\n"
                               "ra_hit_streak=1\n"
                               "  [ Cache ]  \r\n"
                               "\n"
                               "#commented=4\n"
                               "  Ra_Hit_Streak=5\r\n"
                               "spaced = 7\n"
                               "twice=8=9\n"
                               "empty=\n"
                               "negative=-1\n"
                               "padded= 42abc\n"
                               "[broken\n"
                               "after_broken=2\n"
                               "[cache]\n"
                               "later=6\n");
  EXPECT_EQ(GetPrivateProfileInt(" CACHE\t", "RA_HIT_STREAK", 3, file), 5u);
  // The section name is trimmed, the key is not.
  EXPECT_EQ(GetPrivateProfileInt("cache", " ra_hit_streak", 3, file), 0u);
  // Blanks before "=" belong to the key, so "spaced" is not there, and a
  // readable file answers 0, not the default.
  EXPECT_EQ(GetPrivateProfileInt("cache", "spaced", 3, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "spaced ", 3, file), 7u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "twice", 3, file), 8u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "empty", 3, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "negative", 3, file), 0xFFFFFFFFu);
  EXPECT_EQ(GetPrivateProfileInt("cache", "padded", 3, file), 42u);
  // No comment syntax: the line defines the key "#commented".
  EXPECT_EQ(GetPrivateProfileInt("cache", "commented", 3, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "#commented", 3, file), 4u);
  // Any "[" line ends the section; only the first "cache" section counts.
  EXPECT_EQ(GetPrivateProfileInt("cache", "after_broken", 3, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "later", 3, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "top", 3, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("other", "ra_hit_streak", 3, file), 1u);

  char buffer[32];
  EXPECT_EQ(GetPrivateProfileString("cache", "padded", "d", buffer, sizeof(buffer), file), 6);
  EXPECT_STREQ(buffer, " 42abc");
  EXPECT_EQ(GetPrivateProfileString("cache", "spaced", "dflt", buffer, sizeof(buffer), file), 4);
  EXPECT_STREQ(buffer, "dflt");
}

TEST(IniTest, LinesAreReadIn2047BytePieces) {
  TempDir dir;
  // 2047 bytes before "hidden=9" and before "[next]": each tail is read as a
  // line of its own.
  std::string first = "filler=" + std::string(2047 - 7, 'a') + "hidden=9\n";
  std::string second = std::string(2047, 'b') + "[next]\n";
  std::string file = dir.Write("long.ini", "[cache]\n" + first + second + "y=2\n");
  EXPECT_EQ(GetPrivateProfileInt("cache", "hidden", 0, file), 9u);
  EXPECT_EQ(GetPrivateProfileInt("cache", "y", 0, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("next", "y", 0, file), 2u);
  char buffer[4096];
  EXPECT_EQ(GetPrivateProfileString("cache", "filler", "", buffer, sizeof(buffer), file), 2040);
}

TEST(IniTest, StringBufferSizeRules) {
  TempDir dir;
  std::string file = dir.Write("s.ini", "[cache]\nkey=abcd\n");
  char buffer[8];
  const std::string untouched(sizeof(buffer), 'z');

  // The value and its zero must fit: 4 characters need 5 bytes.
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "xy", buffer, 5, file), 4);
  EXPECT_STREQ(buffer, "abcd");
  // A value that does not fit gives the default, if that fits.
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "xyz", buffer, 4, file), 3);
  EXPECT_STREQ(buffer, "xyz");

  // Neither fits, or no buffer: 0 and the buffer untouched.
  std::memset(buffer, 'z', sizeof(buffer));
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "wxyz", buffer, 4, file), 0);
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "xyz", buffer, -1, file), 0);
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "", buffer, 0, file), 0);
  EXPECT_EQ(std::string(buffer, sizeof(buffer)), untouched);
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "xyz", nullptr, 8, file), 0);
}

TEST(IniTest, DefaultOnlyWhenFileCannotBeOpened) {
  TempDir dir;
  std::string missing = dir.File("missing.ini");
  EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, missing), 3u);
  char buffer[8];
  EXPECT_EQ(GetPrivateProfileString("cache", "key", "dflt", buffer, sizeof(buffer), missing), 4);
  EXPECT_STREQ(buffer, "dflt");

  EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, dir.Write("empty.ini", "")), 0u);

  // Permissions do not stop root, so only other users can check this.
  if (geteuid() != 0) {
    std::string locked = dir.Write("locked.ini", "[cache]\nkey=5\n");
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    EXPECT_EQ(GetPrivateProfileInt("cache", "key", 3, locked), 3u);
  }
}
