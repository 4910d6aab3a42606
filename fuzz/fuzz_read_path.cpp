// Fuzzes the read path of the sector cache: decodes the input into steps for
// ReadPathModel (tests/support/read_path_model.h), which applies them to a
// ReadonlyCache and checks every answer; a failed check aborts. No queue is
// bound, so every fetch runs inline on the reading thread and a run is
// deterministic.
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
#include "support/read_path_model.h"

namespace {

using Op = ReadPathModel::Op;
// Largest origin file: nine sectors, so that a run stays small and fast.
constexpr long long kMaxFileSize = 9 * kSectorSize;
struct Bytes {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  uint32_t U8() { return at < size ? data[at++] : 0; }
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
};

// A step, with its numbers kept to what a run can afford: reads of at most
// 3 MiB, waits of at most 15 ms, settings and origin modes that exist.
ReadPathModel::Step Decode(Bytes& in, long long file_size) {
  // No queue, no broken streams, no slot checks: the operations up to kSet.
  const Op op = static_cast<Op>(in.U8() % (static_cast<uint32_t>(Op::kSet) + 1));
  const long long a = in.Number(file_size);
  const long long b = in.Number(file_size);
  switch (op) {
    case Op::kTimeout: return {op, a % 16};
    case Op::kOrigin: return {op, a < ReadPathModel::kMixed ? a % 7 : ReadPathModel::kMixed + a % 256, b % 4};
    case Op::kSet: return {op, a % 10, a % 10 == ReadPathModel::kReadTimeout ? b % 16 : b};
    default: return {op, a, op <= Op::kClosedWholeFileRead ? std::min(b, 3 * 1048576LL) : b};  // the reads come first
  }
}

void Fail(const std::string& what) {
  std::fprintf(stderr, "fuzz_read_path: %s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One scratch directory for the whole run, removed when the program ends.
  static const struct Scratch {
    std::string path =
        std::filesystem::temp_directory_path() / ("korv-fuzz-read-path-" + std::to_string(getpid()) + "/");
    ~Scratch() { std::filesystem::remove_all(path); }
  } scratch;
  const std::string& dir = scratch.path;
  std::filesystem::remove_all(dir);
  std::filesystem::create_directory(dir);
  ResetClockForTesting();
  Bytes in{data, size};
  const long long file_size = std::min(in.Number(0), kMaxFileSize);
  ReadPathModel model(dir, file_size, kDefaultCacheConfig, Fail);
  for (int i = 0; i < 256 && in.at < size; ++i) model.Apply(Decode(in, file_size));
  return 0;
}
