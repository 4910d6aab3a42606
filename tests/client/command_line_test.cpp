// Option parsing and the small helpers of the client programs.
#include "command_line.h"

#include <gtest/gtest.h>

#include <sstream>

#include "sha256.h"

namespace {

// Parses `line`, split at spaces, as korvmount's arguments.
bool Parse(const std::string& line, ClientOptions* options, std::string* error) {
  std::vector<std::string> args = {"korvmount"};
  std::istringstream words(line);
  for (std::string word; words >> word;) args.push_back(word);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  return ParseClientOptions(static_cast<int>(argv.size()), argv.data(), options, error);
}

TEST(CommandLine, ParsesOptionsAndRejectsBadValues) {
  ClientOptions options;
  std::string error;
  ASSERT_TRUE(Parse("http://h --limit 8G /mnt --threads 2 -f --timeout-ms 250", &options, &error)) << error;
  EXPECT_EQ(options.drive.limit, 8ULL << 30);
  EXPECT_EQ(options.drive.threads, 2);
  EXPECT_EQ(options.origin.timeout_ms, 250);
  EXPECT_TRUE(options.foreground);
  EXPECT_EQ(options.positional, (std::vector<std::string>{"http://h", "/mnt"}));

  for (const std::string bad : {"--threads 0", "--threads 4x", "--threads 257", "--limit lots", "--timeout-ms 0",
                                "--latency-ms -5", "--bandwidth 9X", "--log-level loud"}) {
    EXPECT_FALSE(Parse(bad, &options, &error)) << bad;
    EXPECT_EQ(error, "bad " + bad);
  }
  const std::pair<const char*, const char*> refused[] = {
      {"--settings @/nonexistent/settings.json", "cannot read settings file /nonexistent/settings.json"},
      {"--limit", "--limit needs a value"},
      {"--bogus", "unknown option --bogus"},
  };
  for (const auto& [args, expected] : refused) {
    EXPECT_FALSE(Parse(args, &options, &error)) << args;
    EXPECT_EQ(error, expected);
  }
}

TEST(CommandLine, SizesAndOriginFiles) {
  const std::pair<const char*, unsigned long long> sizes[] = {
      {"4G", 4ULL << 30}, {"512MiB", 512ULL << 20}, {"64k", 64 << 10}, {"1000", 1000}, {"2TB", 2ULL << 40}};
  for (const auto& [text, expected] : sizes) {
    unsigned long long bytes = 0;
    EXPECT_TRUE(ParseSize(text, &bytes) && bytes == expected) << text << ": " << bytes;
  }
  unsigned long long bytes = 0;
  for (const char* bad : {"", "G", "-1", "4X", "99999999999T", "1.5G"}) EXPECT_FALSE(ParseSize(bad, &bytes)) << bad;

  const std::tuple<const char*, const char*, const char*> splits[] = {
      {"http://host:8080/a/b%20c.bin?x=1", "http://host:8080", "/a/b c.bin"},
      {"/srv/data/x.bin", "/srv/data", "/x.bin"},
      {"/top.bin", "/", "/top.bin"},
      {"http://host:8080", "", ""},
      {"http://host:8080/", "", ""},
      {"/srv/data/", "", ""},
      {"", "", ""},
  };
  for (const auto& [target, expected_origin, expected_path] : splits) {
    std::string origin, path;
    EXPECT_EQ(SplitOriginFile(target, &origin, &path), *expected_path != '\0') << target;
    EXPECT_EQ(origin + " " + path, std::string(expected_origin) + " " + expected_path) << target;
  }
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
