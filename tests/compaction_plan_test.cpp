// The compaction plan of an eviction pass alone: slot layouts against the
// moves and the cut they get. No files.
#include <gtest/gtest.h>

#include <deque>
#include <ostream>
#include <tuple>

#include "cache/compaction_plan.h"
#include "cache/sector.h"

// Found by argument-dependent lookup: SlotMove is a global type.
bool operator==(const SlotMove& a, const SlotMove& b) {
  return std::tie(a.offset, a.from, a.to) == std::tie(b.offset, b.from, b.to);
}

void PrintTo(const SlotMove& m, std::ostream* os) { *os << "{" << m.offset << ": " << m.from << "->" << m.to << "}"; }

namespace {

constexpr long long S = kSectorSize;
using Slots = std::deque<long long>;

TEST(CompactionPlan, HighestSectorsMoveIntoTheLowestFreeSlotsAndTheFreeTailIsCut) {
  struct Moves { const char* what; std::vector<_SECTOR_USING> kept; Slots free; std::vector<SlotMove> moves; };
  const Moves moves[] = {
      {"free slots above every sector move nothing", {{0, 0}, {S, S}}, {2 * S, 3 * S}, {}},
      {"several holes fill from the lowest, highest sector first", {{10 * S, 4 * S}, {11 * S, 3 * S}, {12 * S, 0}},
       {S, 2 * S}, {{10 * S, 4 * S, S}, {11 * S, 3 * S, 2 * S}}},
      {"a freed slot is reused only while it lies below the next sector", {{5 * S, 3 * S}, {6 * S, 2 * S}}, {0},
       {{5 * S, 3 * S, 0}}},
      {"a sector without a slot never moves", {{9 * S, -1}}, {0}, {}},
  };
  for (const Moves& c : moves) EXPECT_EQ(PlanSlotMoves(c.kept, c.free), c.moves) << c.what;

  struct Cut { const char* what; Slots free; long long length; long long cut_to; Slots left; };
  const Cut cuts[] = {
      {"a run of last slots, in any order", {3 * S, S, 2 * S}, 4 * S, S, {}},
      {"a gap stops the cut", {2 * S, 0}, 3 * S, 2 * S, {0}},
      {"a free slot before a used last one stays", {S}, 3 * S, 3 * S, {S}},
      {"every slot free", {0, S}, 2 * S, 0, {}},
  };
  for (Cut c : cuts) {
    EXPECT_EQ(CutFreeTail(&c.free, c.length), c.cut_to) << c.what;
    EXPECT_EQ(c.free, c.left) << c.what;
  }
}

}  // namespace
