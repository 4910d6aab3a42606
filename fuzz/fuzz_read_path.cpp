// Fuzzes the read path of the sector cache: decodes the input into steps for
// ReadPathModel (tests/support/read_path_model.h), which applies them to a
// ReadonlyCache and checks every answer; a failed check aborts.
//
// No queue is bound, so every fetch task runs inline on the reading thread
// and a run is deterministic.
//
// Input: the file size, then steps: an operation byte, then the step's a and
// b. Every number is a kind byte and its value bytes: near a sector
// boundary, near the end of the file, anywhere (in 64-byte units) or exact
// (four bytes, little-endian). Missing bytes read as zero.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "korvcache.h"
#include "support/read_path_model.h"

namespace {

using Op = ReadPathModel::Op;
// Largest origin file: nine sectors, so that a run stays small and fast.
constexpr long long kMaxFileSize = 9 * kSectorSize;
constexpr long long kMaxReadSize = 3 * 1048576;
constexpr int kMaxSteps = 256;
// What a fuzzed step may do: no queue, no broken streams, no slot checks.
constexpr Op kOps[] = {
    Op::kRead, Op::kCachedRead, Op::kWholeFileRead, Op::kClosedRead, Op::kClosedWholeFileRead, Op::kFetchWrite,
    Op::kReserve, Op::kClearReserved, Op::kClock, Op::kEvict, Op::kEvictOverQuota, Op::kCheckHandles, Op::kClose,
    Op::kCloseRemove, Op::kReopen, Op::kDeleteFile, Op::kBlockFile, Op::kFileSize, Op::kQuotaSize, Op::kLength,
    Op::kLargestEmpty, Op::kOrigin, Op::kTimeout, Op::kSet};

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint32_t U8() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t U16() { return U8() | U8() << 8; }
  long long Number(long long file_size) {
    const uint32_t kind = U8();
    switch (kind % 4) {
      case 0: return std::max(0LL, (kind / 4) * kSectorSize + static_cast<int16_t>(U16()));
      case 1: return std::max(0LL, file_size + static_cast<int16_t>(U16()));
      case 2: return U16() * 64LL;
      default: return U16() | static_cast<long long>(U16()) << 16;
    }
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

void Fail(const std::string& what) {
  std::fprintf(stderr, "fuzz_read_path: %s\n", what.c_str());
  std::abort();
}

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
};

const std::string& CacheDir() {
  static const std::string dir = [] {
    // Memory-backed when available: the cache file is rewritten constantly.
    const char* base = std::getenv("TMPDIR");
    std::string root = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (base != nullptr && *base ? base : "/tmp");
    std::string pattern = root + "/korv-fuzz-read-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) Fail("mkdtemp failed");
    return pattern + "/";
  }();
  return dir;
}

void EmptyCacheDir(bool remove_dir) {
  std::error_code ignored;
  std::filesystem::remove_all(CacheDir(), ignored);
  if (!remove_dir) std::filesystem::create_directory(CacheDir(), ignored);
}

// A step, with its numbers kept to what a run can afford: reads fit the
// buffer, waits stay short, settings and origin modes exist.
ReadPathModel::Step Decode(Bytes& in, long long file_size) {
  const Op op = kOps[in.U8() % (sizeof(kOps) / sizeof(kOps[0]))];
  const long long a = in.Number(file_size);
  long long b = in.Number(file_size);
  switch (op) {
    case Op::kTimeout: return {op, a % 16};
    case Op::kOrigin: return {op, a < ReadPathModel::kMixed ? a % 7 : ReadPathModel::kMixed + a % 256, b % 4};
    case Op::kSet: return {op, a % 10, a % 10 == ReadPathModel::kReadTimeout ? b % 16 : b};
    case Op::kCachedRead: case Op::kRead: case Op::kWholeFileRead: case Op::kClosedRead: case Op::kClosedWholeFileRead:
      return {op, a, std::min(b, kMaxReadSize)};
    default: return {op, a, b};
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
    const long long file_size = std::min(in.Number(0), kMaxFileSize);
    ReadPathModel model(CacheDir(), file_size, kDefaultCacheConfig, Fail);
    for (int i = 0; i < kMaxSteps && !in.empty(); ++i) model.Apply(Decode(in, file_size));
  }
  Cache_UnbindLogger();
  ResetClockForTesting();
  EmptyCacheDir(false);
  return 0;
}
