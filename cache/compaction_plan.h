// How an eviction pass compacts a sector cache file: which sectors move to
// which slots, and where the file is cut. Pure: the pass carries the plan out
// on the file and its index.
#pragma once

#include <deque>
#include <vector>

// A sector that stays, with its slot.
struct _SECTOR_USING {
  long long offset;        // origin sector
  long long cache_offset;  // its slot; -1 while it has none
};

struct SlotMove {
  long long offset;  // origin sector
  long long from;    // slot it leaves, which becomes free
  long long to;      // the lowest free slot
};

// Moves the highest-placed sectors down, one at a time, into the lowest free
// slot, for as long as that slot lies below the highest sector not yet
// moved. Each move frees the slot it leaves. `free_slots` is taken in
// ascending order.
std::vector<SlotMove> PlanSlotMoves(std::vector<_SECTOR_USING> kept, std::deque<long long> free_slots);

// The free slots that end a file of `length` bytes, cut off together:
// returns the new length (`length` when none can go) and takes them out of
// *free_slots, which is left in ascending order.
long long CutFreeTail(std::deque<long long>* free_slots, long long length);
