// The fixed unit of both cache file forms.
#pragma once

// 512 KiB. Origin offsets are grouped into sectors by truncating down to a
// multiple of it; every slot of a sector cache file has exactly this length.
constexpr long long kSectorSize = 524288;

// Start of the sector that holds `offset` (offsets are never negative here).
constexpr long long SectorOf(long long offset) { return offset - offset % kSectorSize; }

// One sector of zero bytes, never written: the padding of partly filled slots.
extern const char tempbuffer[kSectorSize];
