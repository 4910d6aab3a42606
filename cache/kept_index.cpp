#include "cache/kept_index.h"

#include <xxhash.h>

#include <algorithm>
#include <chrono>
#include <set>

#include "cache/sector.h"

namespace {

// Raised whenever the layout changes: an index of another layout is damaged.
constexpr char kTag[8] = {'K', 'O', 'R', 'V', 'K', 'E', 'P', '1'};
constexpr size_t kSectorRecord = 6 * 8;
// Names and versions longer than this are not a client's: a damaged length.
constexpr uint64_t kMaxText = 1 << 20;

void PutU64(std::string* out, uint64_t value) {
  for (int i = 0; i < 8; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

void PutText(std::string* out, const std::string& text) {
  PutU64(out, text.size());
  out->append(text);
}

// Reads little-endian fields from a byte string, failing once it runs out.
class Reader {
 public:
  explicit Reader(const std::string& bytes, size_t end) : bytes_(bytes), end_(end) {}
  bool U64(uint64_t* value) {
    if (end_ - at_ < 8) return false;
    *value = 0;
    for (int i = 0; i < 8; ++i) *value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes_[at_ + i])) << (8 * i);
    at_ += 8;
    return true;
  }
  bool I64(int64_t* value) {
    uint64_t raw;
    if (!U64(&raw)) return false;
    *value = static_cast<int64_t>(raw);
    return true;
  }
  bool Text(std::string* text) {
    uint64_t length;
    if (!U64(&length) || length > kMaxText || end_ - at_ < length) return false;
    text->assign(bytes_, at_, length);
    at_ += length;
    return true;
  }
  size_t left() const { return end_ - at_; }

 private:
  const std::string& bytes_;
  const size_t end_;
  size_t at_ = sizeof kTag;
};

bool SectorFits(const KeptSector& s, int64_t origin_size) {
  return s.offset >= 0 && s.offset % kSectorSize == 0 && s.offset < origin_size && s.slot >= 0 &&
         s.slot % kSectorSize == 0 && s.size > 0 && s.size <= std::min<int64_t>(kSectorSize, origin_size - s.offset);
}

}  // namespace

uint64_t SectorChecksum(const void* data, size_t length) { return XXH3_64bits(data, length); }

std::string EncodeKeptIndex(const KeptIndex& index) {
  std::string out(kTag, sizeof kTag);
  PutText(&out, index.name);
  PutText(&out, index.version);
  PutU64(&out, static_cast<uint64_t>(index.origin_size));
  PutU64(&out, static_cast<uint64_t>(index.kept_wall));
  PutU64(&out, index.sectors.size());
  for (const KeptSector& s : index.sectors) {
    for (int64_t field : {s.offset, s.slot, s.size, s.hits, s.access_wall}) PutU64(&out, static_cast<uint64_t>(field));
    PutU64(&out, s.checksum);
  }
  PutU64(&out, XXH3_64bits(out.data(), out.size()));
  return out;
}

bool DecodeKeptIndex(const std::string& bytes, KeptIndex* index) {
  if (bytes.size() < sizeof kTag + 8 || bytes.compare(0, sizeof kTag, kTag, sizeof kTag) != 0) return false;
  const size_t body = bytes.size() - 8;
  uint64_t stored = 0;
  for (int i = 7; i >= 0; --i) stored = stored << 8 | static_cast<unsigned char>(bytes[body + static_cast<size_t>(i)]);
  if (stored != XXH3_64bits(bytes.data(), body)) return false;

  Reader in(bytes, body);
  KeptIndex read;
  uint64_t count = 0;
  if (!in.Text(&read.name) || !in.Text(&read.version) || !in.I64(&read.origin_size) || !in.I64(&read.kept_wall) ||
      !in.U64(&count) || count != in.left() / kSectorRecord || in.left() % kSectorRecord != 0) {
    return false;
  }
  std::set<int64_t> offsets, slots;
  read.sectors.resize(count);
  for (KeptSector& s : read.sectors) {
    in.I64(&s.offset), in.I64(&s.slot), in.I64(&s.size), in.I64(&s.hits), in.I64(&s.access_wall), in.U64(&s.checksum);
    if (!SectorFits(s, read.origin_size) || !offsets.insert(s.offset).second || !slots.insert(s.slot).second) {
      return false;
    }
  }
  *index = std::move(read);
  return true;
}

int64_t WallNanosOf(SteadyTime time) {
  const auto age = SteadyNow() - time;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch() - age)
      .count();
}

SteadyTime SteadyTimeOf(int64_t wall_nanos) {
  const auto now_wall = std::chrono::system_clock::now().time_since_epoch();
  const auto age = std::max(std::chrono::nanoseconds(0), now_wall - std::chrono::nanoseconds(wall_nanos));
  return SteadyNow() - std::chrono::duration_cast<SteadyTime::duration>(age);
}
