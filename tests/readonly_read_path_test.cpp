// The read path of the sector cache, as scripts for the read-path model: what
// is fetched, what is served, where it lands on disk, and how reads end when
// the origin, the queue, the disk or the client misbehave.
#include <gtest/gtest.h>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "support/read_path_model.h"
#include "support/temp_dir.h"

namespace {

using M = ReadPathModel;
using Op = M::Op;
constexpr long long kMiB = 1048576;
constexpr long long kHalf = kSectorSize;

TEST(ReadPathTest, Scripts) {
  _CACHECONFIG conf = kDefaultCacheConfig;
  conf.rahit = 1000;  // keeps read-ahead out of the ranges asserted
  RunReadPathScripts(
      {
          {"a read fetches a MiB from its offset, in runs of missing sectors, within the file", 10 * kMiB,
           {{Op::kRead, kMiB + 10, 100, kOk, 100, {{kMiB, 3 * kHalf}}}, {Op::kFileSize, 0, 0, 3 * kHalf},
            {Op::kRead, 0, 3 * kMiB, kOk, 3 * kMiB, {{0, kMiB}, {5 * kHalf, kHalf}}},
            {Op::kRead, 10 * kMiB - 100, 4096, kOk, 100, {{10 * kMiB - kHalf, kHalf}}},
            {Op::kRead, 10 * kMiB - 100, 4096, kOk, 100},  // the end is a sector boundary
            {Op::kRead, 5 * kMiB + 100, 0, kOk, 0, {{5 * kMiB, 3 * kHalf}}}}},  // even an empty read
          {"slots follow fetch order, a short last sector leaves the rest of its slot empty, reads stop at the end", 1000000,
           {{Op::kLength, 0, 0, -1}, {Op::kRead, 600000, 100, kOk, 100, {{kHalf, kHalf}}},
            {Op::kRead, 0, 100, kOk, 100, {{0, kHalf}}}, {Op::kSlot, 0, kHalf, 475712}, {Op::kSlot, kHalf, 0, kHalf},
            {Op::kRead, 999000, 200000, kOk, 1000}, {Op::kRead, 1000000, 100, kOk, 0},
            {Op::kRead, 3 * kMiB, 100, kOk, 0}, {Op::kWholeFileRead, 999000, 2 * kMiB, kOk, 1000}}},
          {"without a fetcher only settled sectors are served; reservations, unaligned fetch writes", 4 * kMiB,
           {{Op::kReserve, 100, kHalf, kErrUnaligned}, {Op::kReserve, 0, kMiB, kOk},  // before the file exists
            {Op::kReserve, 0, kMiB, kNothingReserved}, {Op::kFetchWrite, 3 * kMiB + 100, 1000, kErrUnaligned},
            {Op::kFetchWrite, 100, 1000, kOk},  // at its own offset; the sector waits for the rest
            {Op::kCachedRead, 0, 2000, kOk, 0}, {Op::kFetchWrite, 0, kHalf, kOk},
            {Op::kCachedRead, 0, 2000, kOk, 2000}, {Op::kCachedRead, kHalf + 7, 100, kOk, 0},
            {Op::kFetchWrite, 2 * kMiB, 1000, kOk},  // part of a sector nobody reserved is not kept
            {Op::kCachedRead, 2 * kMiB, 100, kOk, 0},
            {Op::kClearReserved, 0, 3 * kHalf},  // drops only what is still reserved
            {Op::kReserve, 0, kHalf, kNothingReserved}, {Op::kFetchWrite, kMiB, kHalf, kOk},
            {Op::kCachedRead, kMiB, kMiB, kOk, kHalf}, {Op::kFileSize, 0, 0, kMiB}}},
          {"failed writes share no slot, failed moves keep sectors, freed slots are reused", 8 * kMiB,
           {{Op::kRead, 0, 100, kOk, 100, {{0, kMiB}}}, {Op::kReserve, 2 * kMiB, kHalf, kOk},
            {Op::kBreakStream}, {Op::kFetchWrite, 2 * kMiB, kHalf, kErrFileWrite}, {Op::kMendStream},
            {Op::kReserve, 2 * kMiB, kHalf, kNothingReserved},  // left reserved
            {Op::kCachedRead, 2 * kMiB, 100, kOk, 0}, {Op::kRead, kMiB, 100, kOk, 100, {{kMiB, kMiB}}},
            {Op::kClearReserved, 2 * kMiB, kHalf}, {Op::kRead, 2 * kMiB, 100, kOk, 100, {{2 * kMiB, kMiB}}},
            {Op::kCachedRead, kMiB, 2 * kMiB, kOk, 2 * kMiB}, {Op::kFileSize, 0, 0, 3 * kMiB},
            {Op::kClock, 200000}, {Op::kCachedRead, 2 * kMiB, kMiB, kOk, kMiB},  // young again
            {Op::kSet, M::kClrUnused, 100},
            {Op::kBreakStream}, {Op::kEvict, 0, 0, 3 * kMiB}, {Op::kMendStream},
            {Op::kCachedRead, 2 * kMiB, kMiB, kOk, kMiB},
            // Free slots are used before the file grows; a slot taken by a
            // reservation comes back when it is cleared.
            {Op::kReserve, 4 * kMiB, kHalf, kOk}, {Op::kClearReserved, 4 * kMiB, kHalf},
            {Op::kRead, 5 * kMiB, 100, kOk, 100, {{5 * kMiB, kMiB}}},
            {Op::kRead, 6 * kMiB, 100, kOk, 100, {{6 * kMiB, kMiB}}}, {Op::kFileSize, 0, 0, 7 * kHalf},
            {Op::kSlot, kHalf, 6 * kMiB, kHalf}, {Op::kSlot, kMiB, 5 * kMiB, kHalf},
            {Op::kSlot, 3 * kHalf, 11 * kHalf, kHalf}, {Op::kSlot, 3 * kMiB, 13 * kHalf, kHalf}}},
          {"timed-out and closed reads clear their reservations; a time-out of 0 is the setting", 4 * kMiB,
           {{Op::kQueue, M::kHold}, {Op::kTimeout, 50}, {Op::kRead, 0, 100, kErrRead}, {Op::kHeld, 0, 0, 1},
            {Op::kQueue, M::kRun}, {Op::kTimeout, 5000},
            {Op::kRead, 0, 100, kOk, 100, {{0, kHalf}}},  // queued anew; sector 1 is still the held task's
            {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{0, kMiB}}}, {Op::kCachedRead, 0, kMiB, kOk, kMiB},
            {Op::kQueue, M::kHold}, {Op::kClosedRead, 2 * kMiB, 100, kErrHandleClosed},
            {Op::kReserve, 2 * kMiB, kHalf, kOk}, {Op::kClearReserved, 2 * kMiB, kHalf}, {Op::kOrigin, M::kFail},
            {Op::kRunHeld, 0, 0, M::kAny, M::kAny, {{2 * kMiB, kMiB}}},  // fails and releases the rest
            {Op::kReserve, 5 * kHalf, kHalf, kOk}, {Op::kOrigin, M::kNormal},
            {Op::kSet, M::kReadTimeout, 30}, {Op::kTimeout, 0}, {Op::kRead, 3 * kMiB, 100, kErrRead}}},
          {"a whole-file read is one request, with the cache's own handle", 3 * kMiB + 1000,
           {{Op::kSet, M::kReadFetchMax, kMiB},  // must not split it
            {Op::kQueue, M::kRun}, {Op::kWholeFileRead, 2 * kMiB, 100, kOk, 100, {{0, 3 * kMiB + 1000}}},
            {Op::kFileSize, 0, 0, 6 * kHalf + 1000}, {Op::kWholeFileRead, 3 * kMiB + 900, 2 * kMiB, kOk, 100}}},
          {"an origin that fails or delivers the wrong amount", 8 * kMiB,
           {{Op::kOrigin, M::kFail}, {Op::kRead, 0, 100, kErrRead, M::kAny, {{0, kMiB}}},
            {Op::kOrigin, M::kNothing}, {Op::kRead, kMiB, 100, kErrRead, M::kAny, {{kMiB, kMiB}}},
            {Op::kOrigin, M::kShort}, {Op::kRead, 3 * kMiB, kMiB, kErrRead, M::kAny, {{3 * kMiB, kMiB}}},
            {Op::kOrigin, M::kNormal},  // nothing was left reserved
            {Op::kRead, 0, 100, kOk, 100, {{0, kMiB}}}, {Op::kRead, 3 * kMiB, kMiB, kOk, kMiB, {{7 * kHalf, kHalf}}},
            {Op::kOrigin, M::kExtra},  // one sector more is kept and not fetched again
            {Op::kRead, 5 * kMiB, 100, kOk, 100, {{5 * kMiB, kMiB}}},
            {Op::kOrigin, M::kNormal}, {Op::kRead, 6 * kMiB + 10, kHalf, kOk, kHalf, {{13 * kHalf, kMiB}}}}},
          {"dropped fetches end the read and release their sectors", 4 * kMiB,
           {{Op::kQueue, M::kDrop}, {Op::kTimeout, -1},  // only the drop can end it
            {Op::kRead, 0, 100, kErrRead}, {Op::kReserve, 0, kMiB, kOk}}},
          {"close keeps or deletes the file; a file closed for idleness and deleted starts afresh", 4 * kMiB,
           {{Op::kRead, 0, 100, kOk, 100, {{0, kMiB}}}, {Op::kClose, 0, 0, kOk}, {Op::kLength, 0, 0, 2 * kHalf},
            {Op::kCachedRead, 0, 100, kOk, 100},  // the index stayed too
            {Op::kCloseRemove, 0, 0, kOk}, {Op::kLength, 0, 0, -1}, {Op::kCachedRead, 0, 100, kOk, 0},
            {Op::kReopen}, {Op::kRead, 0, 100, kOk, 100, {{0, kMiB}}}, {Op::kCheckHandles, 11000, 0, 1},
            {Op::kCloseRemove, 0, 0, kErrNotOpen}, {Op::kDeleteFile},
            {Op::kRead, 0, 5000, kOk, 5000, {{0, kMiB}}}, {Op::kFileSize, 0, 0, kMiB}}},
          {"a cache file that cannot be opened", 4 * kMiB,
           {{Op::kBlockFile}, {Op::kRead, 0, 100, kErrRead}, {Op::kFetchWrite, 0, 10, kErrRead}}},
      },
      conf);
}

TEST(ReadPathTest, RefusedRequests) {
  TempDir dir;
  ReadonlyCache cache(dir.path() + "/", "f.bin", kMiB, nullptr);
  EXPECT_EQ(cache.Read(nullptr), kErrInvalidArgument);
  _WRITEDATA wd{"x", 0, 1, 0, std::make_shared<_FS_HANDLE>(), kMiB, nullptr};
  EXPECT_EQ(cache.Write(&wd), kErrReadOnly);
  EXPECT_EQ(cache.Truncate(0), kErrReadOnly);
}

}  // namespace
