// The fetcher hands the cache whole sectors while the origin is still
// sending, retries dropped transfers from where they stopped, and fails
// (so the cache drops its reservations) when it cannot finish.
#include "origin_fetch.h"

#include <gtest/gtest.h>

#include <map>

#include "client/support/faulty_origin.h"
#include "client/support/test_bytes.h"
#include "directory_origin.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kSector = 512 * 1024;

// Keeps every piece by its offset; refuses the one at `refuse_at` (after
// keeping it). Notes how much the origin had sent at the first piece.
struct RecordingCache : IFetchCallback {
  int FetchWrite(long long offset, const char* data, long length, long* written) override {
    if (pieces.empty()) sent_at_first = origin->sent;
    pieces[offset] = std::string(data, static_cast<size_t>(length));
    *written = length;
    return refuse_at == offset ? 3007 : 0;
  }
  const FaultyOrigin* origin;
  std::map<long long, std::string> pieces;
  long long refuse_at = -1, sent_at_first = -1;
};

TEST(OriginFetch, DeliversSectorsAsTheyArriveResumesAfterADropAndFailsWhenItCannotFinish) {
  const long long size = 3 * kSector - 1000;
  const std::string bytes = RandomBytes(size, 2);
  TempDir dir;
  dir.Write("f", bytes);
  struct Case {
    const char* what;
    int breaks;
    long long offset, break_after, refuse_at;
    const char* validator;  // the file's own when empty
    bool closed, stop;
    long long result, kept, requests, fetched;
  };
  const Case cases[] = {
      {"from mid-sector to the end", 0, kSector - 100, 0, -1, "", false, false, 0, size - kSector + 100, 1,
       size - kSector + 100},
      {"one drop", 1, 0, kSector / 2, -1, "", false, false, 0, size, 2, size},
      {"drops beyond the retries", 100, 0, 0, -1, "", false, false, 1, 0, 4, 0},
      {"drop on a closed handle", 1, 0, 0, -1, "", true, false, 1, 0, 1, 0},
      {"the cache refuses a sector", 0, 0, 0, 0, "", false, false, 1, kSector, 1, kSector},
      {"the cache refuses the short last piece", 0, 0, 0, 2 * kSector, "", false, false, 1, size, 1, size},
      {"another version", 0, 0, 0, -1, "v0", false, false, 1, 0, 1, 0},
      {"unmounting", 0, 0, 0, -1, "", false, true, 1, 0, 1, 0},
  };
  RetryPolicy retry;
  retry.first_delay_ms = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string error;
    FaultyOrigin origin(MakeDirectoryOrigin(dir.path(), OriginOptions(), &error));
    origin.breaks = c.breaks;
    origin.break_after = c.break_after;
    OriginFileInfo info;
    ASSERT_EQ(origin.Stat("/f", &info, &error), OriginStatus::kOk) << error;
    TransferCounters drive;
    auto file = std::make_shared<TransferCounters>();
    const std::atomic<bool> stop{c.stop};
    OriginFetch fetch(&origin, "/f", *c.validator ? c.validator : info.validator, &drive, file, retry, &stop);
    RecordingCache cache;
    cache.origin = &origin;
    cache.refuse_at = c.refuse_at;
    const auto handle = c.closed ? std::make_shared<_FS_HANDLE>(_FS_HANDLE{1, 3, 1, "/f"}) : nullptr;
    EXPECT_EQ(fetch.Fetch(c.offset, 3 * kSector, handle, &cache), c.result);
    std::string kept;
    for (auto& [at, piece] : cache.pieces) {
      EXPECT_TRUE(at == c.offset || at % kSector == 0) << "a piece starting mid-sector at " << at;
      kept += piece;
    }
    EXPECT_EQ(kept, bytes.substr(static_cast<size_t>(c.offset), static_cast<size_t>(c.kept)));
    EXPECT_TRUE(cache.pieces.empty() || cache.sent_at_first < size - c.offset) << "sectors waited for the whole range";
    for (const TransferCounters* counters : {&drive, file.get()}) {
      EXPECT_EQ(TransferCounters::Get(counters->origin_requests), c.requests);
      EXPECT_EQ(TransferCounters::Get(counters->bytes_fetched), c.fetched) << "bytes fetched twice or not counted";
    }
    EXPECT_EQ(TransferCounters::Get(drive.in_flight), 0);
  }
}

}  // namespace
