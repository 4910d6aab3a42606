// Option parsing and the small helpers of the client programs.
#include "command_line.h"

#include <gtest/gtest.h>

#include "sha256.h"

namespace {

TEST(CommandLine, SizesAndOriginFiles) {
  unsigned long long bytes = 0;
  EXPECT_TRUE(ParseSize("4G", &bytes));
  EXPECT_EQ(bytes, 4ULL << 30);
  EXPECT_TRUE(ParseSize("512MiB", &bytes));
  EXPECT_EQ(bytes, 512ULL << 20);
  EXPECT_TRUE(ParseSize("1000", &bytes));
  EXPECT_EQ(bytes, 1000u);
  for (const char* bad : {"", "G", "-1", "4X", "99999999999T", "1.5G"}) EXPECT_FALSE(ParseSize(bad, &bytes)) << bad;

  std::string origin, path;
  ASSERT_TRUE(SplitOriginFile("http://host:8080/a/b%20c.bin?x=1", &origin, &path));
  EXPECT_EQ(origin, "http://host:8080");
  EXPECT_EQ(path, "/a/b c.bin");
  ASSERT_TRUE(SplitOriginFile("/srv/data/x.bin", &origin, &path));
  EXPECT_EQ(origin, "/srv/data");
  EXPECT_EQ(path, "/x.bin");
  ASSERT_TRUE(SplitOriginFile("/top.bin", &origin, &path));
  EXPECT_EQ(origin, "/");
  EXPECT_EQ(path, "/top.bin");
  for (const char* bad : {"http://host:8080", "http://host:8080/", "/srv/data/", ""}) {
    EXPECT_FALSE(SplitOriginFile(bad, &origin, &path)) << bad;
  }

  const char* argv[] = {"korvmount", "http://h", "/mnt", "--limit", "8G", "--threads", "0"};
  ClientOptions options;
  std::string error;
  EXPECT_FALSE(ParseClientOptions(7, const_cast<char**>(argv), &options, &error));
  EXPECT_EQ(error, "bad --threads 0");
  ClientOptions good;
  EXPECT_TRUE(ParseClientOptions(5, const_cast<char**>(argv), &good, &error));
  EXPECT_EQ(good.drive.limit, 8ULL << 30);
  EXPECT_EQ(good.positional, (std::vector<std::string>{"http://h", "/mnt"}));
}

TEST(Sha256, KnownDigests) {
  auto digest = [](const std::string& text, size_t piece) {
    Sha256 sha;
    for (size_t at = 0; at < text.size(); at += piece) sha.Update(text.data() + at, std::min(piece, text.size() - at));
    return sha.HexDigest();
  };
  EXPECT_EQ(digest("", 1), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(digest("abc", 1), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const std::string two_blocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  EXPECT_EQ(digest(two_blocks, 5), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(digest(std::string(1000000, 'a'), 4096),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
