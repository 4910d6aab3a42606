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

TEST(CommandLine, ParsesOptionsSizesAndOriginFiles) {
  ClientOptions options;
  std::string error;
  ASSERT_TRUE(Parse("http://h --limit 8G /mnt --threads 256 -f --timeout-ms 1", &options, &error)) << error;
  EXPECT_EQ(options.drive.limit, 8ULL << 30);
  EXPECT_EQ(options.drive.threads, 256);
  EXPECT_EQ(options.origin.timeout_ms, 1);
  EXPECT_TRUE(options.foreground);
  EXPECT_EQ(options.positional, (std::vector<std::string>{"http://h", "/mnt"}));
  const std::pair<const char*, const char*> refused[] = {
      {"--threads 0", "bad --threads 0"}, {"--threads 4x", "bad --threads 4x"}, {"--threads 257", "bad --threads 257"},
      {"--timeout-ms 0", "bad --timeout-ms 0"}, {"--log-level loud", "bad --log-level loud"},
      {"--latency-ms -5", "bad --latency-ms -5"}, {"--bandwidth 9X", "bad --bandwidth 9X"},
      {"--settings @/nonexistent/settings.json", "cannot read settings file /nonexistent/settings.json"},
      {"--limit", "--limit needs a value"}, {"--bogus", "unknown option --bogus"},
  };
  for (const auto& [args, expected] : refused) {
    EXPECT_FALSE(Parse(args, &options, &error)) << args;
    EXPECT_EQ(error, expected);
  }

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
  const std::string two_blocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  EXPECT_EQ(digest(two_blocks, 5), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(digest(std::string(1000, 'a'), 100), "41edece42d63e8d9bf515a9ba6932e1c20cbc9f5a5d134645adb5db1b9737ea3");
}

}  // namespace
