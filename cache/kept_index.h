// The index of a sector cache file kept for the next run: which origin the
// file holds (the name it was opened under, its size, the client's version
// of it) and where each sector lies, with a checksum of every sector's bytes
// and one of the index itself. Pure encoding and decoding; the files are in
// kept_files.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/clock.h"

struct KeptSector {
  int64_t offset;       // origin sector offset
  int64_t slot;         // position in the cache file
  int64_t size;         // valid bytes in the slot
  int64_t hits;         // reads served since it was fetched
  int64_t access_wall;  // last read, wall-clock nanoseconds since the epoch
  uint64_t checksum;    // SectorChecksum of the valid bytes
};

struct KeptIndex {
  std::string name;     // the name the client opened the file under
  std::string version;  // the client's version of the origin (ETag, size and mtime...)
  int64_t origin_size = 0;
  int64_t kept_wall = 0;  // when the index was written, wall-clock nanoseconds
  std::vector<KeptSector> sectors;
};

// XXH3 (64 bits) of a sector's bytes.
uint64_t SectorChecksum(const void* data, size_t length);

// The index as bytes, its own checksum last.
std::string EncodeKeptIndex(const KeptIndex& index);
// False when `bytes` is not a whole, undamaged index: wrong tag, short,
// checksum mismatch, or sectors that cannot be (unaligned, overlapping,
// outside the origin).
bool DecodeKeptIndex(const std::string& bytes, KeptIndex* index);

// Steady-clock times last only as long as the process: ages are stored as
// wall-clock times and turned back, relative to now, when read. A wall time
// in the future reads as now.
int64_t WallNanosOf(SteadyTime time);
SteadyTime SteadyTimeOf(int64_t wall_nanos);
