#include "cache/compaction_plan.h"

#include <algorithm>
#include <functional>

#include "cache/sector.h"

std::vector<SlotMove> PlanSlotMoves(std::vector<_SECTOR_USING> kept, std::deque<long long> free_slots) {
  std::sort(kept.begin(), kept.end(),
            [](const _SECTOR_USING& a, const _SECTOR_USING& b) { return a.cache_offset > b.cache_offset; });
  std::vector<SlotMove> moves;
  for (const _SECTOR_USING& sector : kept) {
    if (free_slots.empty()) break;
    const long long lowest_free = free_slots.front();
    // Every later sector lies lower still: nothing more to move down.
    if (sector.cache_offset < lowest_free) break;
    free_slots.pop_front();
    moves.push_back({sector.offset, sector.cache_offset, lowest_free});
    free_slots.push_back(sector.cache_offset);
  }
  return moves;
}

long long CutFreeTail(std::deque<long long>* free_slots, long long length) {
  std::sort(free_slots->begin(), free_slots->end(), std::greater<long long>());
  // The last slot may hold fewer bytes than a whole slot.
  long long end = RoundUpToSlot(length);
  while (!free_slots->empty() && free_slots->front() + kSectorSize == end) {
    end = free_slots->front();
    free_slots->pop_front();
  }
  std::sort(free_slots->begin(), free_slots->end());
  return std::min(end, length);
}
