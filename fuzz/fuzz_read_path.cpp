// Fuzzes the read path of the sector cache (ReadonlyCache) with sequences of
// reads, fetch writes, reservations, evictions, clock steps and reopenings.
//
// No queue is bound, so every fetch task runs inline on the reading thread
// and a run is deterministic. The origin is a deterministic byte pattern; its
// fetcher hands bytes over in sector-aligned pieces, as the client's fetcher
// does, and can be told to fail, stop short or deliver nothing.
//
// What must hold:
//  - every byte a read returns with kOk is the origin's byte at its offset;
//  - every status is one the operation documents;
//  - a read whose fetches all work, that meets no reservation or short sector
//    this harness itself made, returns kOk with every byte up to the end of
//    the file;
//  - a read writes nothing past its size and serves nothing past the end of
//    the file;
//  - the cache file is a whole number of slots; fetches ask for ranges that
//    start inside the file.
//
// Input: a header of 10 bytes (file size and settings), then operations of
// a code byte and its argument bytes; missing bytes read as zero.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cache/readonly_cache.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "korvcache.h"
#include "support/fake_config.h"

namespace {

constexpr long long kMiB = 1048576;
// Largest origin file: nine sectors, so that a run stays small and fast.
constexpr long long kMaxFileSize = 9 * kSectorSize;
constexpr int kMaxOperations = 64;
constexpr long long kMaxReadSize = 3 * kMiB;
constexpr long long kGuardBytes = 4096;

void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz_read_path: %s\n", what);
    std::abort();
  }
}

// KORV_FUZZ_TRACE=1 in the environment prints every operation, to follow a
// finding step by step.
bool Tracing() {
  static const bool tracing = std::getenv("KORV_FUZZ_TRACE") != nullptr;
  return tracing;
}

__attribute__((format(printf, 1, 2))) void Trace(const char* format, ...) {
  if (!Tracing()) return;
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
}

char ByteAt(long long offset) {
  uint64_t v = static_cast<uint64_t>(offset) * 0x9E3779B97F4A7C15ull;
  return static_cast<char>((v >> 56) ^ (static_cast<uint64_t>(offset) >> 19));
}

// The origin's bytes, with room for deliveries that overrun the file.
const char* OriginBytes() {
  static const std::vector<char> bytes = [] {
    std::vector<char> v(static_cast<size_t>(kMaxFileSize + 4 * kSectorSize));
    for (size_t i = 0; i < v.size(); ++i) v[i] = ByteAt(static_cast<long long>(i));
    return v;
  }();
  return bytes.data();
}

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t U8() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t U16() { return static_cast<uint32_t>(U8()) | static_cast<uint32_t>(U8()) << 8; }
  uint32_t U24() { return U16() | static_cast<uint32_t>(U8()) << 16; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

// Formats every line, so that a format that does not fit its arguments shows
// under the sanitizers, and checks the level.
class FormattingLog : public ILog {
 public:
  __attribute__((format(printf, 3, 0))) void Write(LOGLEVEL level, const char* format, va_list args) override {
    Check(level == LOGLEVEL_DEBUG || level == LOGLEVEL_INFO || level == LOGLEVEL_WARNING || level == LOGLEVEL_ERROR,
          "a log line with an unknown level");
    char line[2048];
    std::vsnprintf(line, sizeof(line), format, args);
    if (level != LOGLEVEL_DEBUG) Trace("  log: %s", line);
  }
};

// What the harness did that may leave sectors reserved or short; both are
// over-approximations, used only to decide which reads must be complete.
struct Model {
  long long file_size = 0;
  std::set<long long> maybe_reserved;
  std::set<long long> maybe_short;

  bool Touches(const std::set<long long>& sectors, long long from, long long to) const {
    auto it = sectors.lower_bound(SectorOf(from));
    return it != sectors.end() && *it < to;
  }
  void Forget() {
    maybe_reserved.clear();
    maybe_short.clear();
  }
};

class Origin : public IFetch {
 public:
  enum Mode { kNormal, kFail, kWholeSectorsThenStop, kNothing, kExtra, kPartialThenFail };

  explicit Origin(Model* model) : model_(model) {}

  // Settings for the fetches of the next read: `reliability` at or below 160
  // makes every call work; above, each call takes its mode from `modes`.
  void Arm(uint8_t reliability, uint8_t modes, int piece_sectors) {
    reliable_ = reliability <= 160;
    modes_ = modes;
    piece_sectors_ = piece_sectors;
    calls_ = 0;
    abnormal_ = false;
  }
  bool abnormal() const { return abnormal_; }

  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback* callback) override {
    Check(offset >= 0 && offset < model_->file_size && length > 0, "a fetch outside the file");
    Mode mode = kNormal;
    if (!reliable_) mode = static_cast<Mode>(((modes_ >> ((calls_ * 3) % 8)) + calls_) % 6);
    ++calls_;
    Trace("  fetch %lld +%ld mode %d", offset, length, static_cast<int>(mode));
    if (mode != kNormal) abnormal_ = true;
    if (mode == kFail) return 1;
    if (mode == kNothing) return 0;

    long long end = std::min(offset + length, model_->file_size);
    long long stop_at = end;
    if (mode == kExtra) end = std::min(end + kSectorSize, model_->file_size);
    if (mode == kWholeSectorsThenStop) {
      stop_at = std::min(end, SectorOf(offset) + std::max(kSectorSize, SectorOf((end - offset) / 2)));
    }
    long long position = offset;
    while (position < end) {
      // Pieces end on sector boundaries, as the client's fetcher makes them.
      long long piece_end = std::min(end, SectorOf(position) + piece_sectors_ * kSectorSize);
      if (mode == kWholeSectorsThenStop && position >= stop_at) return (modes_ & 1) != 0 ? 1 : 0;
      if (mode == kPartialThenFail) piece_end = position + std::max(1LL, (piece_end - position) / 2);
      long written = -1;
      const long count = static_cast<long>(piece_end - position);
      const int result = callback->FetchWrite(position, OriginBytes() + position, count, &written);
      Check(result == static_cast<int>(kOk) || result == static_cast<int>(kErrRead) ||
                result == static_cast<int>(kErrUnaligned) || result == static_cast<int>(kErrFileWrite),
            "FetchWrite returned an undocumented status");
      if (result != 0) return 1;
      Check(written == count, "FetchWrite stored a different count than it was given");
      if (mode == kPartialThenFail) {
        // The sector the delivery ended in is settled short.
        model_->maybe_short.insert(SectorOf(piece_end));
        return 1;
      }
      position = piece_end;
    }
    return 0;
  }

  std::string HandleInfo(_FS_HANDLE*) override { return "fuzz"; }

 private:
  Model* const model_;
  bool reliable_ = true;
  uint8_t modes_ = 0;
  int piece_sectors_ = 1;
  int calls_ = 0;
  bool abnormal_ = false;
};

const std::string& CacheDir() {
  static const std::string dir = [] {
    // Memory-backed when available: the cache file is rewritten constantly.
    const char* base = std::getenv("TMPDIR");
    std::string root = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (base != nullptr && *base ? base : "/tmp");
    std::string pattern = root + "/korv-fuzz-read-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    return pattern + "/";
  }();
  return dir;
}

void EmptyCacheDir(bool remove_dir) {
  const std::string& dir = CacheDir();
  if (DIR* stream = opendir(dir.c_str())) {
    while (dirent* entry = readdir(stream)) {
      if (entry->d_name[0] != '.') unlink((dir + entry->d_name).c_str());
    }
    closedir(stream);
  }
  if (remove_dir) rmdir(dir.c_str());
}

void RemoveCacheDirAtExit() { EmptyCacheDir(true); }

long long Pick(Bytes& in, const std::vector<long long>& choices) { return choices[in.U8() % choices.size()]; }

_CACHECONFIG ConfigFrom(Bytes& in) {
  _CACHECONFIG conf = kDefaultCacheConfig;
  const uint8_t hit = in.U8();
  conf.rahit = hit < 200 ? hit % 5 : 1000;
  conf.ramin = static_cast<uint64_t>(Pick(in, {kMiB, kSectorSize, 2 * kMiB, 0, 1, 4096, 1000000, 3 * kSectorSize / 2}));
  conf.ramax = static_cast<uint64_t>(Pick(in, {8 * kMiB, 256 * kMiB, kMiB, kSectorSize, 2 * kMiB, 1000000, 4096, 0}));
  conf.readfetchmax = static_cast<uint64_t>(
      Pick(in, {512 * kMiB, kMiB, kSectorSize, 0, 1, 4096, 1000000, 700000, 3 * kSectorSize / 2}));
  conf.readtimeout = static_cast<uint64_t>(in.U8() % 4 * 5);
  const uint8_t ages = in.U8();
  conf.clrused = (ages & 7) * 30u;
  conf.clrunused = ((ages >> 3) & 7) * 60u;
  conf.clroverused = (ages >> 6) * 10u;
  conf.clroverunused = (ages >> 6) * 20u;
  return conf;
}

long long FileSizeFrom(Bytes& in) {
  const uint8_t selector = in.U8();
  const uint32_t delta = in.U16();
  long long size = (selector % 10) * kSectorSize;
  switch ((selector / 10) % 4) {
    case 1: size += delta; break;
    case 2: size -= delta; break;
    case 3: size += delta % 16; break;
    default: break;
  }
  return std::max(0LL, std::min(size, kMaxFileSize));
}

// An offset near a sector boundary, near the end of the file, or anywhere.
long long OffsetFrom(Bytes& in, const Model& model) {
  const uint8_t kind = in.U8();
  const long long delta = static_cast<long long>(in.U16() % 2048) - 1024;
  long long offset;
  switch (kind % 3) {
    case 0: offset = (kind / 3 % 11) * kSectorSize + delta; break;
    case 1: offset = model.file_size + delta; break;
    default: offset = static_cast<long long>(in.U24()) * 64 % (model.file_size + kMiB + 1); break;
  }
  return std::max(0LL, offset);
}

// A length: small, large, about a whole number of sectors, or 0.
long long SizeFrom(Bytes& in) {
  const uint8_t kind = in.U8();
  const long long value = in.U16();
  switch (kind % 4) {
    case 0: return value % 8192;
    case 1: return value * 32 % (3 * kMiB);
    case 2: return std::max(0LL, (kind / 4 % 6) * kSectorSize + (value % 64) - 32);
    default: return value % 2 == 0 ? 0 : kSectorSize;
  }
}

class Run {
 public:
  Run(long long file_size, const _CACHECONFIG& conf, uint8_t quota) : origin_(&model_) {
    model_.file_size = file_size;
    config_.Set(conf);
    config_.SetQuota(quota < 200 ? (1ull << 30) : static_cast<unsigned long long>(quota - 200) * kSectorSize);
    Open();
  }

  void Step(Bytes& in) {
    const uint8_t code = in.U8();
    switch (code % 16) {
      case 0:
      case 1:
      case 2:
      case 3: FetchingRead(in); break;
      case 4: CachedRead(in); break;
      case 5:
      case 6: FetchWrite(in); break;
      case 7: Reserve(in); break;
      case 8: ClearReserved(in); break;
      case 9: {
        const long long seconds = Pick(in, {11, 31, 61, 121, 301, 3601, 1, 7201});
        Trace("clock +%llds", seconds);
        AdvanceClockForTesting(std::chrono::seconds(seconds));
        break;
      }
      case 10: Evict(in.U8() % 2 == 1); break;
      case 11: Trace("check handles: %d", cache_->CheckHandles()); break;
      case 12: Close(in.U8() % 2 == 1); break;
      case 13: Open(); break;
      case 14:  // behind the cache's back
        Trace("delete the cache file: %d", std::remove(cache_->GetCachePath().c_str()));
        break;
      default: Inspect(in); break;
    }
  }

 private:
  void Open() {
    Trace("open a %lld-byte file", model_.file_size);
    cache_.reset();
    model_.Forget();
    cache_ = std::make_unique<ReadonlyCache>(CacheDir(), "fuzz:origin.bin:1", model_.file_size, &config_);
  }

  void CheckSlots() {
    const long long length = cache_->GetFileSize();
    Check(length >= 0 && length % kSectorSize == 0, "the cache file is not a whole number of slots");
  }

  void CheckServed(const std::vector<char>& buffer, const _READDATA& rd) {
    Check(rd.transferred <= rd.size, "a read transferred more than asked");
    // One memcmp first: a byte loop under the fuzzer's comparison hooks
    // would dominate the run.
    Check(rd.transferred == 0 || rd.offset + static_cast<long long>(rd.transferred) <= model_.file_size,
          "a read served bytes past the end of the file");
    const char* expected = OriginBytes() + rd.offset;
    if (rd.transferred == 0 || std::memcmp(buffer.data(), expected, rd.transferred) == 0) return;
    for (unsigned long long i = 0; i < rd.transferred; ++i) {
      if (buffer[i] != OriginBytes()[rd.offset + static_cast<long long>(i)]) {
        std::fprintf(stderr, "byte %llu of a read at %lld (size %llu, %llu transferred) is not the origin's\n", i,
                     rd.offset, rd.size, rd.transferred);
        Check(false, "a read returned a byte that differs from the origin");
      }
    }
  }

  void FetchingRead(Bytes& in) {
    const long long offset = OffsetFrom(in, model_);
    const long long size = SizeFrom(in);
    const uint8_t reliability = in.U8();
    const uint8_t modes = in.U8();
    const uint8_t flags = in.U8();
    const bool whole_file = (flags & 7) == 7;
    const bool handle_closed = (flags & 0x18) == 0x18;
    const long long timeout = Pick(in, {0, 1, 5, 10});
    const long long end = offset + size;
    // A read waits for a reservation to settle; one this harness made never
    // will, so such a read takes what is cached instead.
    if (whole_file ? !model_.maybe_reserved.empty() : model_.Touches(model_.maybe_reserved, offset, end)) {
      Read(offset, size, nullptr, false, false, timeout);
      return;
    }
    origin_.Arm(reliability, modes, 1 + (flags >> 5) % 3);
    const _READDATA rd = Read(offset, size, &origin_, whole_file, handle_closed, timeout);
    const unsigned int status = last_status_;
    if (!origin_.abnormal() && !handle_closed &&
        !model_.Touches(model_.maybe_short, offset, std::min(end, model_.file_size))) {
      if (status != kOk) {
        std::fprintf(stderr, "read at %lld size %lld of a %lld-byte file (whole file %d): status %u\n", offset,
                     size, model_.file_size, whole_file, status);
      }
      Check(status == kOk, "a read failed although every fetch worked");
      const long long expected = offset >= model_.file_size ? 0 : std::min(size, model_.file_size - offset);
      if (static_cast<long long>(rd.transferred) != expected) {
        std::fprintf(stderr, "read at %lld size %lld of a %lld-byte file: %llu bytes, %lld expected\n", offset,
                     size, model_.file_size, rd.transferred, expected);
      }
      Check(static_cast<long long>(rd.transferred) == expected, "a read came back short although every fetch worked");
    }
  }

  void CachedRead(Bytes& in) {
    const long long offset = OffsetFrom(in, model_);
    Read(offset, SizeFrom(in), nullptr, false, false, 0);
  }

  _READDATA Read(long long offset, long long size, IFetch* fetch, bool whole_file, bool handle_closed,
                 long long timeout) {
    // One buffer for all reads: a fresh multi-MiB allocation per read costs
    // more in page faults than the whole read path. Guard bytes after the
    // request catch a read that writes past its size.
    static std::vector<char> buffer(static_cast<size_t>(kMaxReadSize + kGuardBytes));
    Check(size <= kMaxReadSize, "a read larger than the buffer");
    std::fill(buffer.begin(), buffer.begin() + size + kGuardBytes, '\x5a');
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = handle_closed ? 3 : 0;
    _READDATA rd{buffer.data(), offset,  static_cast<unsigned long long>(size), 0, handle, model_.file_size,
                 fetch,         timeout, whole_file};
    last_status_ = cache_->Read(&rd);
    Trace("read %lld +%lld%s%s%s timeout %lld: status %u, %llu bytes", offset, size, fetch ? " fetching" : "",
          whole_file ? " whole file" : "", handle_closed ? " closed" : "", timeout, last_status_, rd.transferred);
    Check(last_status_ == kOk || last_status_ == kErrRead || last_status_ == kErrHandleClosed ||
              last_status_ == kErrFileRead,
          "Read returned an undocumented status");
    Check(std::all_of(buffer.begin() + size, buffer.begin() + size + kGuardBytes, [](char c) { return c == '\x5a'; }),
          "a read wrote past the end of its buffer");
    if (last_status_ == kOk) CheckServed(buffer, rd);
    return rd;
  }

  void FetchWrite(Bytes& in) {
    const uint8_t kind = in.U8();
    const long long sector = (kind % 10) * kSectorSize;
    // An unaligned offset names its sector; the bytes are that sector's.
    const long long offset = (kind & 0x80) != 0 ? sector + in.U16() % kSectorSize : sector;
    long long length = SizeFrom(in);
    length = std::min(length, model_.file_size - sector);
    if (length <= 0) return;
    long written = -1;
    const int result = cache_->FetchWrite(offset, OriginBytes() + sector, static_cast<long>(length), &written);
    Trace("fetch write %lld +%lld: %d", offset, length, result);
    Check(result == static_cast<int>(kOk) || result == static_cast<int>(kErrRead) ||
              result == static_cast<int>(kErrUnaligned) || result == static_cast<int>(kErrFileWrite),
          "FetchWrite returned an undocumented status");
    if (offset == sector) Check(result != static_cast<int>(kErrUnaligned), "an aligned fetch write was refused");
    if (result == static_cast<int>(kErrUnaligned)) return;
    for (long long s = sector; s < sector + length; s += kSectorSize) {
      if (result != 0) {
        model_.maybe_reserved.insert(s);  // a failed write leaves its sector reserved
        continue;
      }
      model_.maybe_reserved.erase(s);
      const long long chunk = std::min(kSectorSize, sector + length - s);
      if (chunk < std::min(kSectorSize, model_.file_size - s)) {
        model_.maybe_short.insert(s);
      } else {
        model_.maybe_short.erase(s);
      }
    }
    if (result == 0) Check(written == length, "FetchWrite stored a different count than it was given");
    CheckSlots();
  }

  void Reserve(Bytes& in) {
    const uint8_t kind = in.U8();
    const long long offset = (kind % 11) * kSectorSize + ((kind & 0x80) != 0 ? 100 : 0);
    const long long length = SizeFrom(in);
    const unsigned int result = cache_->Reserve(offset, length);
    Trace("reserve %lld +%lld: %u", offset, length, result);
    Check(result == kOk || result == kErrUnaligned || result == kNothingReserved,
          "Reserve returned an undocumented status");
    Check((offset % kSectorSize != 0) == (result == kErrUnaligned), "Reserve misjudged the alignment");
    if (result == kOk) {
      for (long long s = offset; s < offset + length; s += kSectorSize) model_.maybe_reserved.insert(s);
    }
  }

  void ClearReserved(Bytes& in) {
    const long long offset = OffsetFrom(in, model_);
    const long long length = SizeFrom(in);
    Trace("clear reserved %lld +%lld", offset, length);
    Check(cache_->ClearReserved(offset, length) == kOk, "ClearReserved did not return kOk");
    if (length <= 0) return;
    const long long steps = (length + kSectorSize - 1) / kSectorSize;
    for (long long i = 0; i < steps; ++i) model_.maybe_reserved.erase(SectorOf(offset) + i * kSectorSize);
  }

  void Evict(bool over_quota) {
    Trace("evict%s", over_quota ? " over quota" : "");
    cache_->ClearOldCache(over_quota);
    CheckSlots();
  }

  void Close(bool remove) {
    const unsigned int result = cache_->Close(remove);
    Trace("close%s: %u", remove ? " and remove" : "", result);
    Check(result == kOk || result == kErrNotOpen, "Close returned an undocumented status");
    if (remove && result == kOk) model_.Forget();
  }

  void Inspect(Bytes& in) {
    const long long offset = OffsetFrom(in, model_);
    const long long empty = cache_->GetLargestEmptyOffset(offset);
    Check(empty == -1 || (empty >= 0 && empty % kSectorSize == 0), "GetLargestEmptyOffset is not a sector");
    CheckSlots();
    Check(cache_->GetFileSizeForQuota() >= 0, "a negative size for the quota");
  }

  Model model_;
  Origin origin_;
  FakeConfig config_;
  std::unique_ptr<ReadonlyCache> cache_;
  unsigned int last_status_ = kOk;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool initialized = [] {
    OriginBytes();
    CacheDir();
    std::atexit(RemoveCacheDirAtExit);
    return true;
  }();
  (void)initialized;

  // Every input starts from the same global state.
  ResetClockForTesting();
  Cache_UnbindAsyncQ();
  FormattingLog log;
  Cache_BindLogger(&log);
  {
    Bytes in(data, size);
    const long long file_size = FileSizeFrom(in);
    const _CACHECONFIG conf = ConfigFrom(in);
    const uint8_t quota = in.U8();
    Trace("settings: rahit %llu, ramin %llu, ramax %llu, readfetchmax %llu, readtimeout %llu, clrused %llu, "
          "clrunused %llu, quota byte %u",
          static_cast<unsigned long long>(conf.rahit), static_cast<unsigned long long>(conf.ramin),
          static_cast<unsigned long long>(conf.ramax), static_cast<unsigned long long>(conf.readfetchmax),
          static_cast<unsigned long long>(conf.readtimeout), static_cast<unsigned long long>(conf.clrused),
          static_cast<unsigned long long>(conf.clrunused), quota);
    Run run(file_size, conf, quota);
    for (int i = 0; i < kMaxOperations && !in.empty(); ++i) run.Step(in);
  }
  Cache_UnbindLogger();
  ResetClockForTesting();
  EmptyCacheDir(false);
  return 0;
}
