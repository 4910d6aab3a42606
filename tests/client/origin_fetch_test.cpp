// The fetcher hands the cache whole sectors while the origin is still
// sending, retries dropped transfers from where they stopped, and fails
// (so the cache drops its reservations) when it cannot finish.
#include "origin_fetch.h"

#include <gtest/gtest.h>

#include <map>

namespace {

constexpr long long kSector = 512 * 1024;

// An origin serving one file from memory in 64 KiB pieces; it records how
// many deliveries the cache had seen when each piece was sent.
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
                         const ByteSink& sink, std::string* error) override {
    if (!validator.empty() && validator != "v1") return OriginStatus::kChanged;
    const long long end = std::min<long long>(offset + length, static_cast<long long>(bytes_.size()));
    long long sent = 0;
    for (long long at = offset; at < end; at += 65536) {
      if (fail_after >= 0 && sent >= fail_after) {
        fail_after = -1;
        *error = "reset";
        return OriginStatus::kUnreachable;
      }
      const long long piece = std::min<long long>(65536, end - at);
      if (!sink(bytes_.data() + at, static_cast<size_t>(piece))) return OriginStatus::kFailed;
      sent += piece;
      if (on_piece) on_piece(at + piece);
    }
    return OriginStatus::kOk;
  }

  long long fail_after = -1;  // one transfer breaks after this many bytes
  std::function<void(long long)> on_piece;

 private:
  const std::string bytes_;
};

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

std::string Pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 4096);
  return bytes;
}

TEST(OriginFetch, DeliversWholeSectorsWhileTheOriginSends) {
  const std::string bytes = Pattern(3 * kSector + 1000);
  MemoryOrigin origin(bytes);
  TransferCounters drive;
  auto file = std::make_shared<TransferCounters>();
  OriginFetch fetch(&origin, "/f", "v1", &drive, file);
  RecordingCache cache;
  size_t delivered_when_third_sector_sent = 0;
  origin.on_piece = [&](long long sent) {
    if (sent == 3 * kSector) delivered_when_third_sector_sent = cache.pieces.size();
  };
  EXPECT_EQ(fetch.Fetch(kSector, 3 * kSector, nullptr, &cache), 0);
  EXPECT_GE(delivered_when_third_sector_sent, 1u) << "sectors waited for the whole range";
  ASSERT_EQ(cache.pieces.size(), 3u);
  for (auto& piece : cache.pieces) {
    EXPECT_EQ(piece.first % kSector, 0);
    EXPECT_LE(piece.second.size(), static_cast<size_t>(kSector));
  }
  EXPECT_EQ(cache.Joined(), bytes.substr(kSector));  // the last piece ends with the file
  EXPECT_EQ(TransferCounters::Get(drive.bytes_fetched), 2 * kSector + 1000);
  EXPECT_EQ(TransferCounters::Get(file->origin_requests), 1);
}

TEST(OriginFetch, ResumesAfterADropAndFailsWhenItCannotFinish) {
  const std::string bytes = Pattern(2 * kSector);
  MemoryOrigin origin(bytes);
  TransferCounters drive;
  auto file = std::make_shared<TransferCounters>();
  RetryPolicy retry;
  retry.first_delay_ms = 1;
  OriginFetch fetch(&origin, "/f", "v1", &drive, file, retry);

  RecordingCache resumed;
  origin.fail_after = kSector / 2;
  EXPECT_EQ(fetch.Fetch(0, 2 * kSector, nullptr, &resumed), 0);
  EXPECT_EQ(resumed.Joined(), bytes);
  EXPECT_EQ(resumed.pieces.size(), 2u) << "the resumed transfer must not split a sector";
  EXPECT_EQ(TransferCounters::Get(drive.bytes_fetched), 2 * kSector) << "nothing fetched twice";

  RecordingCache refusing;
  refusing.refuse_at = 0;
  EXPECT_EQ(fetch.Fetch(0, 2 * kSector, nullptr, &refusing), 1);
  EXPECT_EQ(refusing.pieces.size(), 1u) << "fetching went on after the cache refused";

  OriginFetch stale(&origin, "/f", "v0", &drive, file, retry);
  RecordingCache untouched;
  EXPECT_EQ(stale.Fetch(0, kSector, nullptr, &untouched), 1);
  EXPECT_TRUE(untouched.pieces.empty());

  auto closed = std::make_shared<_FS_HANDLE>(_FS_HANDLE{1, 3, 1, "/f"});
  RecordingCache gave_up;
  origin.fail_after = 0;
  const long long requests = TransferCounters::Get(drive.origin_requests);
  EXPECT_EQ(fetch.Fetch(0, kSector, closed, &gave_up), 1);
  EXPECT_EQ(TransferCounters::Get(drive.origin_requests), requests + 1) << "retried for a closed handle";
}

}  // namespace
