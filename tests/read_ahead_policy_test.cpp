// The read-ahead decision alone: scripts of reads against the verdict and the
// block each one gets. No files, no threads; time is given, not waited for.
#include <gtest/gtest.h>

#include <chrono>

#include "cache/read_ahead_policy.h"
#include "cache/sector.h"

namespace {

using V = ReadAheadPolicy::Verdict;
constexpr long long S = kSectorSize, M = 1 << 20;

// run_end: where the cached run of the read ends (-1: beyond ramax); block: the size of the block, for kFetch.
struct Step { long long offset, run_end; double at_seconds; V verdict; long long block = 0; bool busy = false; };

// A sequential reader whose cached run ends one sector past each read.
Step Next(long long offset, double at, V v, long long block = 0) { return {offset, offset + S, at, v, block}; }

TEST(ReadAheadPolicy, ScriptsOfReads) {
  const long long kFile = 100 * M, kNoLimit = 1ll << 40;
  const struct { const char* what; long long ramin, ramax; unsigned long long rahit, quota; long long origin_size;
                 std::vector<Step> steps; } scripts[] = {
      {"a stream climbs the ladder by doubling up to ramax", M, 4 * M, 2, kNoLimit, kFile,
       {Next(0, 0, V::kFirstRead), Next(M, 1, V::kTooFewReads), Next(2 * M, 2, V::kTooFewReads),
        Next(3 * M, 3, V::kFetch, M), Next(4 * M, 4, V::kFetch, 2 * M), Next(5 * M, 5, V::kFetch, 4 * M),
        Next(6 * M, 6, V::kFetch, 4 * M)}},
      {"a read behind the newest breaks the stream and the ladder starts at its foot again", M, 8 * M, 0, kNoLimit,
       kFile, {Next(10 * M, 0, V::kFirstRead), Next(11 * M, 1, V::kFetch, M), Next(12 * M, 2, V::kFetch, 2 * M),
               Next(5 * M, 4, V::kNotContinuous), Next(6 * M, 5, V::kFetch, M)}},
      {"a read more than ramax beyond the newest breaks the stream; exactly ramax does not", M, 4 * M, 0, kNoLimit,
       kFile, {Next(0, 0, V::kFirstRead), Next(4 * M, 1, V::kFetch, M), Next(8 * M + 1, 2, V::kNotContinuous)}},
      {"a pause of 301 s breaks the stream; one of 300.5 s does not", M, 8 * M, 0, kNoLimit, kFile,
       {Next(0, 0, V::kFirstRead), Next(M, 300.5, V::kFetch, M), Next(2 * M, 601.5, V::kNotContinuous)}},
      {"a run longer than ramax records nothing; one cached to the end forgets the stream", M, 8 * M, 1, kNoLimit,
       kFile, {Next(0, 0, V::kFirstRead), {M, -1, 1, V::kRunTooLong}, Next(2 * M, 2, V::kTooFewReads),
               {3 * M, kFile - S, 3, V::kCachedToEnd}, Next(4 * M, 4, V::kFirstRead)}},
      {"a run ending one storage limit ahead or more records the read but starts nothing", M, 8 * M, 0, 64 * M,
       kFile, {Next(0, 0, V::kFirstRead), {M, 65 * M, 1, V::kBeyondQuota}, {2 * M, 65 * M, 2, V::kFetch, M}}},
      {"blocks end on a sector boundary, or at the end of the file", 786432, 8 * M, 0, kNoLimit, 10 * M + 1000,
       {Next(0, 0, V::kFirstRead), Next(S, 1, V::kFetch, 2 * S), {2 * S, 10 * M - S, 2, V::kFetch, S + 1000}}},
  };
  for (const auto& script : scripts) {
    SCOPED_TRACE(script.what);
    ReadAheadPolicy policy(script.ramin, script.ramax);
    const ReadAheadPolicy::Settings settings{script.origin_size, script.quota, script.rahit, script.ramax};
    for (const Step& step : script.steps) {
      const SteadyTime at{std::chrono::nanoseconds(static_cast<long long>(step.at_seconds * 1e9))};
      const ReadAheadPolicy::Decision d = policy.Consider({step.offset, 4096, at, step.run_end, step.busy}, settings);
      EXPECT_EQ(d.verdict, step.verdict) << "read at " << step.offset;
      if (step.verdict == V::kFetch) {
        EXPECT_EQ(std::make_pair(d.offset, d.size), std::make_pair(step.run_end, step.block)) << step.offset;
      }
    }
  }
}

}  // namespace
