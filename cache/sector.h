// The fixed unit of both cache file forms.
#pragma once

#include <climits>

// 512 KiB. Origin offsets are grouped into sectors by truncating down to a
// multiple of it; every slot of a sector cache file has exactly this length.
constexpr long long kSectorSize = 524288;

// Start of the sector that holds `offset` (offsets are never negative here).
constexpr long long SectorOf(long long offset) { return offset - offset % kSectorSize; }

// The first slot position at or after `length`: where a slot is appended to a
// cache file whose last slot may hold fewer than kSectorSize bytes.
constexpr long long RoundUpToSlot(long long length) {
  return (length + kSectorSize - 1) / kSectorSize * kSectorSize;
}

// A request must lie within [0, LLONG_MAX]: a negative offset, or a size that
// runs past the largest offset, cannot be seeked to and would overflow the
// sector arithmetic.
inline bool ValidRange(long long offset, unsigned long long size) {
  return offset >= 0 && size <= static_cast<unsigned long long>(LLONG_MAX - offset);
}
