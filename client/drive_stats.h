// The statistics file of a mount: JSON a person can read with `cat`.
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
  std::vector<File> files;  // the files open now
};

std::string RenderDriveStats(const DriveStatsInput& input);

// Bytes the files under `dir` hold on disk: their allocated blocks, so the
// unwritten slots of sparse files do not count.
unsigned long long DirectoryBytes(const std::string& dir);
