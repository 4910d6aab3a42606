// Naming helpers shared by both cache file forms.
#pragma once

#include <string>
#include <vector>

// The names in directory `dir`, without "." and ".."; empty when it cannot
// be read.
std::vector<std::string> DirectoryEntries(const std::string& dir);

// True when `path` exists as a regular file or a directory.
bool IsFileOrDirectory(const std::string& path);

// The log tag of an origin name: names of the form "drive:path:..." are
// shown by their middle part; any other name as it is.
std::string TagFromName(const std::string& name);

// The name a sector cache file gets: a fresh UUID and ".cache".
std::string NewSectorCacheFileName();

// True for names of that form (without a directory).
bool IsSectorCacheFileName(const std::string& name);

// True for a UUID followed by `suffix` (without a directory).
bool IsUuidNamed(const std::string& name, const std::string& suffix);

// Where the index of the kept sector cache file `cache_path` lies: beside
// it, ".index" instead of ".cache".
std::string KeptIndexPathOf(const std::string& cache_path);
