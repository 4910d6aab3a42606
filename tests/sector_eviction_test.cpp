// Eviction of the sector cache, as scripts for the read-path model: which
// sectors age out, how the survivors are packed down, how the file shrinks
// and finally goes, and how far the run of present sectors reaches.
#include <gtest/gtest.h>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "support/read_path_model.h"

namespace {

using M = ReadPathModel;
using Op = M::Op;
constexpr long long kMiB = 1048576;
constexpr long long kHalf = kSectorSize;

TEST(SectorEvictionTest, Scripts) {
  _CACHECONFIG conf = kDefaultCacheConfig;
  conf.clrused = conf.clrunused = conf.clroverused = conf.clroverunused = 1000000;
  conf.ramax = kMiB;
  RunReadPathScripts(
      {
          {"selection by age, use and reservation; ages compared strictly in whole seconds", 8 * kMiB,
           {{Op::kSet, M::kClrUsed, 100}, {Op::kSet, M::kClrUnused, 1000}, {Op::kSet, M::kClrOverUsed, 10},
            {Op::kSet, M::kClrOverUnused, 50}, {Op::kFetchWrite, 0, kHalf, kOk},
            {Op::kCachedRead, 0, 100, kOk, 100},  // sector 0 is used, sector 1 is not
            {Op::kFetchWrite, kHalf, kHalf, kOk},
            {Op::kReserve, kMiB, kHalf, kOk},  // sector 2 is on its way
            {Op::kClock, 100000}, {Op::kEvict, 0, 0, 2 * kHalf}, {Op::kClock, 1000}, {Op::kEvict, 0, 0, kHalf},
            {Op::kCachedRead, 0, 100, kOk, 0},
            {Op::kEvictOverQuota, 0, 0, -1},  // shorter ages: the unread sector goes too
            {Op::kCachedRead, kHalf, 100, kOk, 0},
            {Op::kClock, 1000000000},  // a reservation never ages out
            {Op::kEvictOverQuota}, {Op::kEvict}, {Op::kReserve, kMiB, kHalf, kNothingReserved}}},
          {"a sector older than the unused age goes, even one read more recently than the used age", 8 * kMiB,
           {{Op::kSet, M::kClrUnused, 100}, {Op::kFetchWrite, 0, kHalf, kOk}, {Op::kFetchWrite, kHalf, kHalf, kOk},
            {Op::kCachedRead, 0, kMiB, kOk, kMiB}, {Op::kClock, 101000},
            {Op::kCachedRead, kHalf, 100, kOk, 100},  // young again
            {Op::kEvict}, {Op::kCachedRead, 0, 100, kOk, 0}, {Op::kCachedRead, kHalf, 100, kOk, 100}}},
          {"survivors move down, the file shrinks and finally goes, then starts anew", 2 * kHalf + 1000,
           {{Op::kFetchWrite, 0, kHalf, kOk},  // slots in fetch order
            {Op::kClock, 200000}, {Op::kFetchWrite, kHalf, kHalf, kOk}, {Op::kClock, 200000},
            {Op::kFetchWrite, kMiB, 1000, kOk}, {Op::kFileSize, 0, 0, 3 * kHalf},
            {Op::kSet, M::kClrUnused, 300},  // slot 0 goes: the highest slot moves into it
            {Op::kEvict, 0, 0, kMiB}, {Op::kSlotStart, 0, kMiB, 1000}, {Op::kSlot, kHalf, kHalf, kHalf},
            {Op::kSet, M::kClrUnused, 150},  // the last slot goes: only the cut
            {Op::kEvict, 0, 0, kHalf}, {Op::kCachedRead, kMiB, 4096, kOk, 1000}, {Op::kCachedRead, 0, 100, kOk, 0},
            {Op::kCachedRead, kHalf, 100, kOk, 0}, {Op::kClock, 1000}, {Op::kSet, M::kClrUsed, 0},
            {Op::kEvict, 0, 0, -1}, {Op::kQuotaSize, 0, 0, 0},
            {Op::kLength, 0, 0, -1},  // not recreated by asking for its size
            {Op::kRead, kHalf - 1000, 2000, kOk, 2000, {{0, 3 * kHalf}}}, {Op::kQuotaSize, 0, 0, 3 * kHalf}}},
          {"the largest empty offset follows the run of present sectors", 8 * kMiB,
           {{Op::kFetchWrite, 0, kHalf, kOk}, {Op::kFetchWrite, kHalf, kHalf, kOk}, {Op::kFetchWrite, kMiB, kHalf, kOk},
            {Op::kFetchWrite, 3 * kMiB, kHalf, kOk}, {Op::kFetchWrite, 5 * kMiB, kHalf, kOk},
            {Op::kFetchWrite, 11 * kHalf, kHalf, kOk}, {Op::kFetchWrite, 6 * kMiB, kHalf, kOk},
            {Op::kFetchWrite, 13 * kHalf, kHalf, kOk},
            {Op::kLargestEmpty, 2 * kMiB + 5, 0, 2 * kMiB},  // absent: its sector
            {Op::kLargestEmpty, 100, 0, kMiB},               // the run ends before a gap
            {Op::kLargestEmpty, 3 * kMiB, 0, 3 * kMiB},      // a run of one
            {Op::kLargestEmpty, 5 * kMiB, 0, -1},            // reaches past offset + ramax
            {Op::kLargestEmpty, 11 * kHalf, 0, 13 * kHalf}}},  // entries run out
          {"a pass over a file deleted while closed for idleness drops its index once", 4 * kMiB,
           {{Op::kFetchWrite, 0, kHalf, kOk}, {Op::kFetchWrite, kHalf, kHalf, kOk}, {Op::kCheckHandles, 11000, 0, 1},
            {Op::kDeleteFile}, {Op::kSet, M::kClrUnused, 0}, {Op::kEvict, 0, 0, -1}, {Op::kCachedRead, 0, 100, kOk, 0},
            {Op::kReserve, 0, kMiB, kOk},  // nothing of the old index is left
            {Op::kClearReserved, 0, kMiB}, {Op::kRead, kHalf - 500, 1000, kOk, 1000, {{0, 3 * kHalf}}}}},
      },
      conf);
}

}  // namespace
