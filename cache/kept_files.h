// Sector cache files kept from one run to the next: finding them when a
// manager starts, writing their indexes when a run ends.
//
// A kept file is "<uuid>.cache" with "<uuid>.index" beside it. The index is
// written last, atomically, after the file's bytes are on disk, and it is
// removed before the next run writes to the file; so a file without an index
// was being written when its run ended (a crash, a kill, power loss) and is
// not trusted.
#pragma once

#include <string>
#include <vector>

#include "cache/kept_index.h"
#include "korvcache.h"

// A kept file found in the cache directory, with its undamaged index.
struct FoundFile {
  std::string cache_path;
  std::string index_path;
  long long file_length = 0;  // the cache file's length in bytes
  KeptIndex index;
};

// Goes through the directory `dir` (ending in "/"): sector cache files
// without an index, or whose index is damaged (logged as a warning), and
// indexes without their file are removed; of two files kept under one name
// the older goes. Returns the rest. Other files are left alone.
std::vector<FoundFile> FindKeptFiles(const std::string& dir);

// Writes `bytes` to `path` atomically: a temporary file, synced, renamed over
// `path`, and the directory synced. False (and nothing at `path` changed)
// when any step failed.
bool WriteKeptIndex(const std::string& path, const std::string& bytes);

// Removes the index at `path` and makes the removal durable: from then on
// the file it describes is no longer trusted after a crash.
void RemoveKeptIndex(const std::string& path);

// Whether the files of a manager's objects are kept at the end of a run:
// what the cache files ask of the settings that come with their manager.
class KeepSetting {
 public:
  virtual bool KeepFiles() = 0;

 protected:
  ~KeepSetting() = default;
};

inline KeepSetting* KeepSettingOf(ICacheConfig* config) { return dynamic_cast<KeepSetting*>(config); }
