// Small file-system queries for tests.
#pragma once

#include <string>
#include <vector>

// The whole file as bytes; empty when it cannot be read.
std::string FileContents(const std::string& path);
// The file's size, or -1 when it cannot be read.
long long FileSize(const std::string& path);
inline bool Exists(const std::string& path) { return FileSize(path) >= 0; }
// Regular files ending in ".cache" directly in `directory` (sector caches).
std::vector<std::string> SectorCacheFiles(const std::string& directory);
// Bytes the entries of `directory` occupy on disk (allocated blocks, as du
// and the manager count them).
long long BytesInDirectory(const std::string& directory);
// A file of `bytes` allocated bytes (a multiple of the block size); false
// when it cannot be made.
bool WriteBallast(const std::string& path, long long bytes);
