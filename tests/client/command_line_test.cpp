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
  ASSERT_TRUE(Parse("http://h --limit 8G /mnt --threads 256 -f --timeout-ms 1 --write-back 0 --attr-timeout 0 --progress --files-ahead 0",
                    &options, &error)) << error;
  EXPECT_TRUE(options.drive.limit == 8ULL << 30 && options.drive.threads == 256 && options.origin.timeout_ms == 1 &&
              options.drive.write_back_seconds == 0 && options.foreground && options.drive.listing_ttl_ms == 0 &&
              options.progress && options.drive.keep_cache && options.drive.files_ahead == 0);
  EXPECT_EQ(options.positional, (std::vector<std::string>{"http://h", "/mnt"}));
  ASSERT_TRUE(Parse("-o ro,allow_other --no-keep-cache", &options, &error)) << error;
  EXPECT_EQ(options.fuse_options, (std::vector<std::string>{"ro,allow_other", "default_permissions"}));
  EXPECT_FALSE(options.drive.keep_cache);
  const std::pair<const char*, const char*> refused[] = {
      {"--threads 0", "bad --threads 0"}, {"--threads 4x", "bad --threads 4x"}, {"--threads 257", "bad --threads 257"},
      {"--timeout-ms 0", "bad --timeout-ms 0"}, {"--log-level loud", "bad --log-level loud"},
      {"--latency-ms -5", "bad --latency-ms -5"}, {"--bandwidth 9X", "bad --bandwidth 9X"},
      {"--settings @/nonexistent/settings.json", "cannot read settings file /nonexistent/settings.json"},
      {"--limit", "--limit needs a value"}, {"--write-back -1", "bad --write-back -1"}, {"--bogus", "unknown option --bogus"},
      {"--limit 63M", "--limit 63M is below the cache's floor of 64M"}, {"--attr-timeout -1", "bad --attr-timeout -1"},
      {"--files-ahead 257", "bad --files-ahead 257"},
  };
  for (const auto& [args, expected] : refused) {
    EXPECT_FALSE(Parse(args, &options, &error)) << args;
    EXPECT_EQ(error, expected);
  }

  // ~0: refused.
  const std::pair<const char*, unsigned long long> sizes[] = {{"4G", 4ULL << 30}, {"512MiB", 512ULL << 20},
      {"64k", 64 << 10}, {"1000", 1000}, {"2TB", 2ULL << 40}, {"", ~0ULL}, {"G", ~0ULL}, {"-1", ~0ULL},
      {"4X", ~0ULL}, {"99999999999T", ~0ULL}, {"1.5G", ~0ULL}};
  for (const auto& [text, expected] : sizes) {
    unsigned long long bytes = 0;
    EXPECT_EQ(ParseSize(text, &bytes) ? bytes : ~0ULL, expected) << text;
  }

  const std::tuple<const char*, const char*, const char*> splits[] = {
      {"http://host:8080/a/b%20c.bin?x=1", "http://host:8080", "/a/b c.bin"},
      {"/srv/data/x.bin", "/srv/data", "/x.bin"}, {"/top.bin", "/", "/top.bin"},
      {"http://host:8080", "", ""}, {"http://host:8080/", "", ""}, {"/srv/data/", "", ""},
  };
  for (const auto& [target, expected_origin, expected_path] : splits) {
    std::string origin, path;
    EXPECT_EQ(SplitOriginFile(target, &origin, &path), *expected_path != '\0') << target;
    EXPECT_EQ(origin + " " + path, std::string(expected_origin) + " " + expected_path) << target;
  }
}

TEST(Sha256, KnownDigestInPieces) {
  const std::string text(1000, 'a');
  Sha256 sha;
  for (size_t at = 0; at < text.size(); at += 100) sha.Update(text.data() + at, 100);
  EXPECT_EQ(sha.HexDigest(), "41edece42d63e8d9bf515a9ba6932e1c20cbc9f5a5d134645adb5db1b9737ea3");
}

}  // namespace
