// Options shared by korvmount and korvcat, and the small parsers behind them.
#pragma once

#include <string>
#include <vector>

#include "origin.h"
#include "remote_drive.h"

// "4G", "512M", "64k", "1000": bytes, with binary suffixes. False on junk.
bool ParseSize(const std::string& text, unsigned long long* bytes);
bool ParseCount(const std::string& text, long long* value);

// The cache directory a user gets without --cache-dir:
// $XDG_CACHE_HOME/korvcache, or ~/.cache/korvcache.
std::string DefaultCacheDirectory();

// The smallest storage limit the library accepts (it answers a smaller one
// with kErrLimitTooSmall).
constexpr unsigned long long kSmallestLimit = 64ULL << 20;

struct ClientOptions {
  DriveOptions drive;
  OriginOptions origin;
  std::vector<std::string> positional;
  std::vector<std::string> fuse_options;  // each -o value, korvmount only
  bool foreground = false;
  bool help = false;
  std::string verify_sha256;  // korvcat only
  bool progress = false;      // korvcat only: a progress bar even when standard error is no terminal
};

// Parses argv[1..]. Returns false with `error` set on a bad option.
bool ParseClientOptions(int argc, char** argv, ClientOptions* options, std::string* error);

// The option lines of the usage texts.
extern const char kCommonOptionsHelp[];

// Splits what korvcat is given into an origin and the file's path on it:
// "http://host:8080/a/b%20c.bin" -> "http://host:8080", "/a/b c.bin";
// "/srv/data/x.bin" -> "/srv/data", "/x.bin". False when no file is named.
bool SplitOriginFile(const std::string& target, std::string* origin, std::string* path);
