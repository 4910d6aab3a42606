// The sector index alone: reservations, readiness, the cached run and which
// sectors are old. No files, no threads, no clock.
#include <gtest/gtest.h>

#include <chrono>
#include <utility>
#include <vector>

#include "cache/sector.h"
#include "cache/sector_index.h"

namespace {

constexpr long long S = kSectorSize;
const SteadyTime kStart{};

// An index holding settled sectors `sectors` in slots 0, S, 2S, ...
SectorIndex Settled(const std::vector<long long>& sectors) {
  SectorIndex index;
  for (size_t i = 0; i < sectors.size(); ++i) index.AddSettled(sectors[i], static_cast<long long>(i) * S, S, kStart);
  return index;
}

TEST(SectorIndex, ReservationsReadinessTheCachedRunAndOldSectors) {
  SectorIndex index = Settled({0});
  EXPECT_EQ(index.Reserve(0, 2 * S + 100, kStart), 2) << "sector 0 is there; S and 2S are reserved";
  EXPECT_EQ(index.Find(2 * S)->size, 100) << "the last piece is what remains of the length";
  EXPECT_EQ(index.Find(S)->cache_offset, -1) << "no free slot: appended when the bytes come";
  long long stop = -1;
  bool missing = true;
  EXPECT_TRUE(index.RangeReady(0, S, &stop, &missing));
  EXPECT_FALSE(index.RangeReady(0, 4 * S, &stop, &missing)) << "2S is reserved before 3S is absent";
  EXPECT_EQ(std::make_pair(stop, missing), std::make_pair(S, false));
  // One step per started sector from the offset's sector: [S + 10, 2S + 10)
  // clears S only; the settled sector 0 never goes this way.
  index.ClearReserved(S + 10, S);
  EXPECT_EQ(index.Find(S), nullptr);
  EXPECT_NE(index.Find(2 * S), nullptr);
  index.ClearReserved(0, 2 * S + 1);
  EXPECT_NE(index.Find(0), nullptr);
  EXPECT_EQ(index.Find(2 * S), nullptr);
  EXPECT_FALSE(index.RangeReady(S, 2 * S, &stop, &missing));
  EXPECT_TRUE(missing);
  index.Drop(0);  // slot 0 is free: the bytes of a sector new to the index take it before the file's end
  EXPECT_EQ(index.PlaceFetched(4 * S, 100, kStart, [] { return -7LL; }).sector->cache_offset, 0);
  EXPECT_EQ(index.PlaceFetched(5 * S, 100, kStart, [] { return 9 * S; }).sector->cache_offset, 9 * S);

  struct Case { const char* what; std::vector<long long> sectors; long long offset, ramax, run_end; };
  const Case cases[] = {
      {"an absent sector is its own run end", {0, S, 3 * S}, 2 * S + 7, 8 * S, 2 * S},
      {"a gap ends the run", {0, S, 3 * S}, 10, 8 * S, S},
      {"a run reaching beyond offset + ramax", {0, S, 2 * S, 3 * S}, 0, 2 * S, -1},
      {"a run ending exactly at offset + ramax", {0, S, 2 * S}, 0, 2 * S, 2 * S},
  };
  for (const Case& c : cases) EXPECT_EQ(Settled(c.sectors).RunEnd(c.offset, c.ramax), c.run_end) << c.what;

  // Read sectors go after more than 60 s, unread ones after more than 120 s, a reservation never.
  index = Settled({0, S, 2 * S});
  index.Find(0)->hits = 1;
  index.Find(S)->access_time = kStart + std::chrono::hours(1);  // from the future: very old
  index.InsertReserved(3 * S, 0, kStart);
  const std::pair<int, std::vector<long long>> kAges[] = {{60, {S}}, {61, {0, S}}, {120, {0, S}}, {121, {0, S, 2 * S}}};
  for (const auto& c : kAges) EXPECT_EQ(index.SelectOld(kStart + std::chrono::seconds(c.first), 60, 120), c.second);
}

}  // namespace
