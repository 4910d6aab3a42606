// Fuzzes the read path of the sector cache: decodes the input into steps for
// ReadPathModel (tests/support/read_path_model.h), which applies them to a
// ReadonlyCache and checks every answer; a failed check aborts.
//
// No queue is bound, so every fetch task runs inline on the reading thread
// and a run is deterministic.
//
// Input: a header of 10 bytes (file size and settings), then operations of
// a code byte and its argument bytes; missing bytes read as zero.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "korvcache.h"
#include "support/read_path_model.h"

namespace {

using Op = ReadPathModel::Op;
using Step = ReadPathModel::Step;
constexpr long long kMiB = 1048576;
// Largest origin file: nine sectors, so that a run stays small and fast.
constexpr long long kMaxFileSize = 9 * kSectorSize;
constexpr int kMaxOperations = 64;

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t U8() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t U16() { return static_cast<uint32_t>(U8()) | static_cast<uint32_t>(U8()) << 8; }
  uint32_t U24() { return U16() | static_cast<uint32_t>(U8()) << 16; }
  long long Pick(const std::vector<long long>& choices) { return choices[U8() % choices.size()]; }

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
    if (level != LOGLEVEL_DEBUG && level != LOGLEVEL_INFO && level != LOGLEVEL_WARNING && level != LOGLEVEL_ERROR)
      Fail("a log line with an unknown level");
    char line[2048];
    std::vsnprintf(line, sizeof(line), format, args);
  }
  static void Fail(const std::string& what) {
    std::fprintf(stderr, "fuzz_read_path: %s\n", what.c_str());
    std::abort();
  }
};

const std::string& CacheDir() {
  static const std::string dir = [] {
    // Memory-backed when available: the cache file is rewritten constantly.
    const char* base = std::getenv("TMPDIR");
    std::string root = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (base != nullptr && *base ? base : "/tmp");
    std::string pattern = root + "/korv-fuzz-read-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) FormattingLog::Fail("mkdtemp failed");
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

_CACHECONFIG ConfigFrom(Bytes& in) {
  _CACHECONFIG conf = kDefaultCacheConfig;
  const uint8_t hit = in.U8();
  conf.rahit = hit < 200 ? hit % 5 : 1000;
  conf.ramin = static_cast<uint64_t>(in.Pick({kMiB, kSectorSize, 2 * kMiB, 0, 1, 4096, 1000000, 3 * kSectorSize / 2}));
  conf.ramax = static_cast<uint64_t>(in.Pick({8 * kMiB, 256 * kMiB, kMiB, kSectorSize, 2 * kMiB, 1000000, 4096, 0}));
  conf.readfetchmax = static_cast<uint64_t>(
      in.Pick({512 * kMiB, kMiB, kSectorSize, 0, 1, 4096, 1000000, 700000, 3 * kSectorSize / 2}));
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
  const long long whole = (selector % 10) * kSectorSize;
  const long long sizes[] = {whole, whole + delta, whole - delta, whole + delta % 16};
  return std::max(0LL, std::min(sizes[(selector / 10) % 4], kMaxFileSize));
}

// An offset near a sector boundary, near the end of the file, or anywhere.
long long OffsetFrom(Bytes& in, long long file_size) {
  const uint8_t kind = in.U8();
  const long long delta = static_cast<long long>(in.U16() % 2048) - 1024;
  long long offset;
  switch (kind % 3) {
    case 0: offset = (kind / 3 % 11) * kSectorSize + delta; break;
    case 1: offset = file_size + delta; break;
    default: offset = static_cast<long long>(in.U24()) * 64 % (file_size + kMiB + 1); break;
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

// The steps of one operation of the input.
std::vector<Step> Decode(Bytes& in, long long file_size) {
  const uint8_t code = in.U8() % 16;
  if (code < 4) {
    const long long offset = OffsetFrom(in, file_size);
    const long long size = SizeFrom(in);
    const uint8_t reliability = in.U8();
    const uint8_t modes = in.U8();
    const uint8_t flags = in.U8();
    const long long timeout = in.Pick({0, 1, 5, 10});
    const bool whole_file = (flags & 7) == 7;
    const bool closed = (flags & 0x18) == 0x18;
    const Op read = closed ? (whole_file ? Op::kClosedWholeFileRead : Op::kClosedRead)
                           : (whole_file ? Op::kWholeFileRead : Op::kRead);
    const long long mode = reliability <= 160 ? ReadPathModel::kNormal : ReadPathModel::kMixed + modes;
    return {{Op::kOrigin, mode, 1 + (flags >> 5) % 3}, {Op::kTimeout, timeout}, {read, offset, size}};
  }
  switch (code) {
    case 4: {
      const long long offset = OffsetFrom(in, file_size);
      return {{Op::kCachedRead, offset, SizeFrom(in)}};
    }
    case 5:
    case 6: {
      const uint8_t kind = in.U8();
      const long long sector = (kind % 10) * kSectorSize;
      // An unaligned offset names its sector; the bytes are that sector's.
      const long long offset = (kind & 0x80) != 0 ? sector + in.U16() % kSectorSize : sector;
      const long long length = std::min(SizeFrom(in), file_size - sector);
      if (length <= 0) return {};
      return {{Op::kFetchWrite, offset, length}};
    }
    case 7: {
      const uint8_t kind = in.U8();
      return {{Op::kReserve, (kind % 11) * kSectorSize + ((kind & 0x80) != 0 ? 100 : 0), SizeFrom(in)}};
    }
    case 8: {
      const long long offset = OffsetFrom(in, file_size);
      return {{Op::kClearReserved, offset, SizeFrom(in)}};
    }
    case 9: return {{Op::kClock, 1000 * in.Pick({11, 31, 61, 121, 301, 3601, 1, 7201})}};
    case 10: return {{in.U8() % 2 == 1 ? Op::kEvictOverQuota : Op::kEvict}};
    case 11: return {{Op::kCheckHandles}};
    case 12: return {{in.U8() % 2 == 1 ? Op::kCloseRemove : Op::kClose}};
    case 13: return {{Op::kReopen}};
    case 14: return {{Op::kDeleteFile}};
    default: return {{Op::kLargestEmpty, OffsetFrom(in, file_size)}, {Op::kQuotaSize}};
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool initialized = [] {
    CacheDir();
    std::atexit([] { EmptyCacheDir(true); });
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
    ReadPathModel model(CacheDir(), file_size, conf, FormattingLog::Fail);
    model.Apply({Op::kSet, ReadPathModel::kQuota, quota < 200 ? 1LL << 30 : (quota - 200) * kSectorSize});
    for (int i = 0; i < kMaxOperations && !in.empty(); ++i) {
      for (const Step& step : Decode(in, file_size)) model.Apply(step);
    }
  }
  Cache_UnbindLogger();
  ResetClockForTesting();
  EmptyCacheDir(false);
  return 0;
}
