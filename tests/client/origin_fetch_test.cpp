// The fetcher hands the cache whole sectors while the origin is still
// sending, retries dropped transfers from where they stopped, and fails
// (so the cache drops its reservations) when it cannot finish.
#include "origin_fetch.h"

#include <gtest/gtest.h>

#include <map>

#include "client/support/test_bytes.h"

namespace {

constexpr long long kSector = 512 * 1024;

// An origin serving one file ("v1") from memory in 64 KiB pieces.
class MemoryOrigin : public Origin {
 public:
  explicit MemoryOrigin(std::string bytes) : bytes_(std::move(bytes)) {}

  std::string Describe() const override { return "memory"; }
  OriginStatus List(const std::string&, std::vector<OriginEntry>*, std::string*) override {
    return OriginStatus::kFailed;
  }
  OriginStatus Stat(const std::string&, OriginFileInfo*, std::string*) override { return OriginStatus::kFailed; }
  OriginStatus Upload(const std::string&, long long, const ByteSource&, std::string*) override {
    return OriginStatus::kFailed;
  }
  OriginStatus ReadRange(const std::string&, long long offset, long long length, const std::string& validator,
                         const ByteSink& sink, std::string*) override {
    if (!validator.empty() && validator != "v1") return OriginStatus::kChanged;
    const long long end = std::min<long long>(offset + length, static_cast<long long>(bytes_.size()));
    for (long long at = offset; at < end; at += 65536) {
      if (breaks > 0 && at - offset >= break_after) {
        --breaks;
        return OriginStatus::kUnreachable;
      }
      const long long piece = std::min<long long>(65536, end - at);
      if (!sink(bytes_.data() + at, static_cast<size_t>(piece))) return OriginStatus::kFailed;
      if (on_piece) on_piece(at + piece);
    }
    return OriginStatus::kOk;
  }

  int breaks = 0;  // the next `breaks` transfers break after `break_after` bytes
  long long break_after = 0;
  std::function<void(long long)> on_piece;  // told the end of each piece sent

 private:
  const std::string bytes_;
};

// Keeps every piece by its offset; refuses the one at `refuse_at` (after keeping it).
class RecordingCache : public IFetchCallback {
 public:
  int FetchWrite(long long offset, const char* data, long length, long* written) override {
    pieces[offset] = std::string(data, static_cast<size_t>(length));
    if (written != nullptr) *written = length;
    return refuse_at == offset ? 3007 : 0;
  }
  std::string Joined() const {
    std::string all;
    for (auto& piece : pieces) all += piece.second;
    return all;
  }
  std::map<long long, std::string> pieces;
  long long refuse_at = -1;
};

TEST(OriginFetch, DeliversWholeSectorsWhileTheOriginSends) {
  const std::string bytes = RandomBytes(3 * kSector + 1000, 1);
  MemoryOrigin origin(bytes);
  TransferCounters drive;
  auto file = std::make_shared<TransferCounters>();
  OriginFetch fetch(&origin, "/f", "v1", &drive, file);
  RecordingCache cache;
  size_t delivered_at_third_sector = 0;
  origin.on_piece = [&](long long sent) {
    if (sent >= 3 * kSector && delivered_at_third_sector == 0) delivered_at_third_sector = cache.pieces.size();
  };
  // From mid-sector: the first piece ends where its sector ends, the last one with the file.
  EXPECT_EQ(fetch.Fetch(kSector - 100, 3 * kSector, nullptr, &cache), 0);
  EXPECT_GE(delivered_at_third_sector, 2u) << "sectors waited for the whole range";
  std::vector<long long> starts;
  for (auto& piece : cache.pieces) starts.push_back(piece.first);
  EXPECT_EQ(starts, (std::vector<long long>{kSector - 100, kSector, 2 * kSector, 3 * kSector}));
  EXPECT_EQ(cache.Joined(), bytes.substr(kSector - 100));
  EXPECT_EQ(TransferCounters::Get(drive.bytes_fetched), 2 * kSector + 1100);
  EXPECT_EQ(TransferCounters::Get(file->origin_requests), 1);
}

TEST(OriginFetch, ResumesAfterADropAndFailsWhenItCannotFinish) {
  const long long size = 2 * kSector - 1000;
  const std::string bytes = RandomBytes(size, 2);
  struct Case {
    const char* what;
    int breaks;
    long long break_after;
    std::string validator;
    long long refuse_at;
    bool closed, stop;
    long long result;
    size_t pieces;
    long long requests, fetched;
  };
  const Case cases[] = {
      // The retry resumes after the bytes received and never splits a sector.
      {"one drop", 1, kSector / 2, "v1", -1, false, false, 0, 2, 2, size},
      {"drops beyond the retries", 100, 0, "v1", -1, false, false, 1, 0, 4, 0},
      {"drop on a closed handle", 1, 0, "v1", -1, true, false, 1, 0, 1, 0},
      {"the cache refuses a sector", 0, 0, "v1", 0, false, false, 1, 1, 1, kSector},
      {"the cache refuses the short last piece", 0, 0, "v1", kSector, false, false, 1, 2, 1, size},
      {"another version", 0, 0, "v0", -1, false, false, 1, 0, 1, 0},
      {"unmounting", 0, 0, "v1", -1, false, true, 1, 0, 1, 0},
  };
  RetryPolicy retry;
  retry.first_delay_ms = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    MemoryOrigin origin(bytes);
    origin.breaks = c.breaks;
    origin.break_after = c.break_after;
    TransferCounters drive;
    const std::atomic<bool> stop{c.stop};
    OriginFetch fetch(&origin, "/f", c.validator, &drive, std::make_shared<TransferCounters>(), retry, &stop);
    RecordingCache cache;
    cache.refuse_at = c.refuse_at;
    auto closed = std::make_shared<_FS_HANDLE>(_FS_HANDLE{1, 3, 1, "/f"});
    EXPECT_EQ(fetch.Fetch(0, 2 * kSector, c.closed ? closed : nullptr, &cache), c.result);
    EXPECT_EQ(fetch.failures(), c.result);
    EXPECT_EQ(cache.pieces.size(), c.pieces);
    EXPECT_EQ(cache.Joined(), bytes.substr(0, c.pieces * kSector));
    EXPECT_EQ(TransferCounters::Get(drive.origin_requests), c.requests);
    EXPECT_EQ(TransferCounters::Get(drive.bytes_fetched), c.fetched) << "bytes fetched twice or not counted";
    EXPECT_EQ(TransferCounters::Get(drive.in_flight), 0);
  }
}

}  // namespace
