// Eviction of the sector cache, as scripts for the read-path model: how the
// survivors are packed down, how the file shrinks and finally goes, and a
// pass over a file that went away.
#include <gtest/gtest.h>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "support/read_path_model.h"

namespace {

using M = ReadPathModel;
using Op = M::Op;
constexpr long long kMiB = 1048576, kHalf = kSectorSize;

TEST(SectorEvictionTest, Scripts) {
  _CACHECONFIG conf = kDefaultCacheConfig;
  conf.clrused = conf.clrunused = conf.clroverused = conf.clroverunused = 1000000;
  RunReadPathScripts(
      {
          {"survivors move down, the file shrinks and finally goes, then starts anew", 2 * kHalf + 1000,
           {{Op::kFetchWrite, 0, kHalf, kOk}, {Op::kClock, 200000}, {Op::kFetchWrite, kHalf, kHalf, kOk},
            {Op::kClock, 200000}, {Op::kFetchWrite, kMiB, 1000, kOk}, {Op::kFileSize, 0, 0, kMiB + 1000},
            {Op::kSet, M::kClrUnused, 300},  // slot 0 goes: the highest slot moves into it
            {Op::kEvict, 0, 0, kMiB}, {Op::kSlotStart, 0, kMiB, 1000}, {Op::kSlot, kHalf, kHalf, kHalf},
            {Op::kSet, M::kClrUnused, 150},  // the last slot goes: only the cut
            {Op::kEvict, 0, 0, kHalf}, {Op::kCachedRead, kMiB, 4096, kOk, 1000}, {Op::kCachedRead, 0, 100, kOk, 0},
            {Op::kClock, 1000}, {Op::kSet, M::kClrUsed, 0}, {Op::kEvict, 0, 0, -1}, {Op::kQuotaSize, 0, 0, 0},
            {Op::kLength, 0, 0, -1},  // not recreated by asking for its size
            {Op::kRead, kHalf - 1000, 2000, kOk, 2000, {{0, 3 * kHalf}}}, {Op::kQuotaSize, 0, 0, kMiB + 1000}}},
          {"a pass over a file deleted while closed for idleness drops its index once", 4 * kMiB,
           {{Op::kFetchWrite, 0, kHalf, kOk}, {Op::kFetchWrite, kHalf, kHalf, kOk}, {Op::kCheckHandles, 11000, 0, 1},
            {Op::kDeleteFile}, {Op::kSet, M::kClrUnused, 0}, {Op::kEvict, 0, 0, -1}, {Op::kCachedRead, 0, 100, kOk, 0},
            {Op::kReserve, 0, kMiB, kOk}, {Op::kClearReserved, 0, kMiB},  // nothing of the old index is left
            {Op::kRead, kHalf - 500, 1000, kOk, 1000, {{0, 3 * kHalf}}}}},
      },
      conf);
}

}  // namespace
