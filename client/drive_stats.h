// The statistics file of a mount: JSON a person can read with `cat`.
// "kept_bytes_found_at_start" is what the cache directory held from earlier
// runs when this one started; "bytes_served_from_kept_cache" the bytes read
// from files before any origin request was made for them since they were
// opened, which only a kept copy can serve (so, a lower bound of what the
// kept copies served).
#pragma once

#include <string>
#include <vector>

#include "transfer_counters.h"

struct DriveStatsInput {
  struct File {
    std::string path;
    long long size;
    const TransferCounters* counters;
  };
  std::string origin;
  std::string cache_dir;
  const TransferCounters* counters = nullptr;
  unsigned long long cache_bytes = 0;
  unsigned long long limit = 0;
  unsigned long long kept_bytes_at_start = 0;  // what earlier runs left, as the run started
  std::vector<File> files;  // the files open now
};

std::string RenderDriveStats(const DriveStatsInput& input);

// Bytes the files under `dir` hold on disk: their allocated blocks, so the
// unwritten slots of sparse files do not count.
unsigned long long DirectoryBytes(const std::string& dir);
