// Read-ahead of the sector cache, as scripts for the read-path model: the
// pieces of a block, and one block at a time, from the end of the cached run,
// whatever became of the one before, until the reader passes the middle of the
// block on its way.
#include <gtest/gtest.h>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "support/read_path_model.h"

namespace {

using M = ReadPathModel;
using Op = M::Op;
constexpr long long kMiB = 1048576, kHalf = kSectorSize;

// A 4 KiB read with a fetcher, which must succeed, and what it fetches.
M::Step ReadAt(long long offset, std::vector<M::Range> fetched = {}) {
  return {Op::kRead, offset, 4096, kOk, 4096, std::move(fetched)};
}

TEST(ReadAheadTest, Scripts) {
  _CACHECONFIG conf = kDefaultCacheConfig;
  conf.rahit = 2;
  conf.ramax = 8 * kMiB;
  RunReadPathScripts(
      {
          {"a block comes in pieces of at most the largest request, in whole sectors", 8 * kMiB,
           {{Op::kSet, M::kRaHit, 0}, {Op::kSet, M::kReadFetchMax, 700000}, ReadAt(0, {{0, kMiB}}),
            ReadAt(0, {{kHalf, kHalf}, {kMiB, kHalf}})}},
          {"one large block at a time; a dropped or failed one does not block the next", 16 * kMiB,
           {{Op::kQueue, M::kRun}, ReadAt(0, {{0, kMiB}}), {Op::kQueue, M::kHold}, ReadAt(0), ReadAt(0),
            {Op::kHeld, 0, 0, 0}, ReadAt(0), {Op::kHeld, 0, 0, 1},  // served from the cache while its block waits
            ReadAt(0), {Op::kHeld, 0, 0, 1}, {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{kHalf, kMiB}}},
            ReadAt(kHalf),  // the read made while busy kept the run going
            {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{kMiB, 2 * kMiB}}}, {Op::kCachedRead, 0, 3 * kMiB, kOk, 3 * kMiB},
            ReadAt(kMiB), {Op::kCancelHeld}, ReadAt(kMiB), {Op::kOrigin, M::kFail},
            {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{5 * kHalf, 8 * kMiB}}}, {Op::kOrigin, M::kNormal},
            ReadAt(kMiB), {Op::kHeld, 0, 0, 1}, {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{5 * kHalf, 8 * kMiB}}},
            {Op::kCachedRead, 0, 21 * kHalf, kOk, 21 * kHalf}}},
          {"past the middle of the block on its way the next is queued behind it, not before", 16 * kMiB,
           {{Op::kQueue, M::kRun}, ReadAt(0, {{0, kMiB}}), {Op::kQueue, M::kHold}, ReadAt(0), ReadAt(0), ReadAt(0),
            ReadAt(kHalf), {Op::kHeld, 0, 0, 1}, {Op::kTimeout, 20}, {Op::kRead, kMiB, 4096, kErrRead, 0},
            {Op::kHeld, 0, 0, 2},  // starting after the last sector of the first, not on it
            {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{kHalf, kMiB}, {3 * kHalf, 2 * kMiB}}},
            {Op::kCachedRead, 0, 7 * kHalf, kOk, 7 * kHalf}}},
      },
      conf);
}

}  // namespace
