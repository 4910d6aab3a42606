#include "support/read_path_model.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "cache/sector.h"
#include "common/clock.h"
#include "support/fake_origin.h"

namespace {

constexpr long long kGuardBytes = 4096;
constexpr uint64_t _CACHECONFIG::*kFields[] = {
    &_CACHECONFIG::rahit,       &_CACHECONFIG::ramin,   &_CACHECONFIG::ramax,     &_CACHECONFIG::readtimeout,
    &_CACHECONFIG::readfetchmax, &_CACHECONFIG::clrused, &_CACHECONFIG::clrunused, &_CACHECONFIG::clroverused,
    &_CACHECONFIG::clroverunused};

// The origin's bytes from 0, computed once for the largest file yet.
const char* OriginBytes(long long size) {
  static std::vector<char> bytes;
  const long long from = static_cast<long long>(bytes.size());
  if (from < size) {
    bytes.resize(static_cast<size_t>(size));
    FakeOrigin::Fill(bytes.data() + from, from, size - from);
  }
  return bytes.data();
}

bool Touches(const std::set<long long>& sectors, long long from, long long to) {
  auto it = sectors.lower_bound(SectorOf(from));
  return it != sectors.end() && *it < to;
}

}  // namespace

ReadPathModel::ReadPathModel(std::string cache_dir, long long file_size, const _CACHECONFIG& config,
                             std::function<void(const std::string&)> fail)
    : dir_(std::move(cache_dir)), file_size_(file_size), fail_(std::move(fail)) {
  config_.Set(config);
  OriginBytes(file_size);
}

// Hands the range over in pieces that end on sector boundaries, as the
// client's fetcher does, or misbehaves as the origin mode says.
long long ReadPathModel::Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                               IFetchCallback* callback) {
  std::unique_lock<std::mutex> state(lock_);
  requests_.emplace_back(offset, length);
  const int call = calls_++;
  int mode = origin_mode_;
  if (mode >= kMixed) {
    const int pick = (((mode - kMixed) >> ((call * 3) % 8)) + call) % 6;
    mode = pick == kShort && (mode & 1) != 0 ? kShortThenFail : pick;
  }
  abnormal_ = abnormal_ || mode != kNormal;
  const long long pieces = piece_sectors_;
  state.unlock();
  Expect(offset >= 0 && offset < file_size_ && length > 0, "a fetch outside the file");
  // The reader's handle, or for a whole-file read the cache's own (type 2, id 0) with the reader's info.
  Expect(handle && handle->info == "reader" && handle->id == (handle->type == 2 ? 0 : 77),
         "a fetch with another handle than the reader's");
  if (mode == kFail || mode == kNothing) return mode == kFail ? 1 : 0;
  const long long end = std::min(offset + length + (mode == kExtra ? kSectorSize : 0), file_size_);
  long long stop_at = end;
  if (mode == kShort || mode == kShortThenFail)
    stop_at = std::min(end, SectorOf(offset) + std::max(kSectorSize, SectorOf((end - offset) / 2)));
  for (long long position = offset; position < end;) {
    if (position >= stop_at) return mode == kShortThenFail ? 1 : 0;
    long long piece_end = std::min(end, SectorOf(position) + pieces * kSectorSize);
    if (mode == kPartialThenFail) piece_end = position + std::max(1LL, (piece_end - position) / 2);
    long written = -1;
    const long count = static_cast<long>(piece_end - position);
    const int result = callback->FetchWrite(position, OriginBytes(file_size_) + position, count, &written);
    std::lock_guard<std::mutex> guard(lock_);
    abnormal_ = abnormal_ || result != 0;
    Expect(result != 0 || written == count, "FetchWrite stored another count than it was given");
    if (mode == kPartialThenFail) short_.insert(SectorOf(piece_end));
    if (result != 0 || mode == kPartialThenFail) return 1;
    position = piece_end;
  }
  return 1LL << 32;  // only the low 32 bits are the status
}

ReadonlyCache& ReadPathModel::cache() {
  if (!cache_) cache_ = std::make_unique<ReadonlyCache>(dir_, "model:origin.bin:1", file_size_, &config_);
  return *cache_;
}

void ReadPathModel::Run(const std::vector<Step>& script) {
  for (size_t i = 0; i < script.size(); ++i) {
    step_ = "step " + std::to_string(i) + ": ";
    Do(script[i], true);
  }
}

void ReadPathModel::Expect(bool ok, const std::string& what) {
  if (!ok) fail_(step_ + what);
}

void ReadPathModel::Expect(long long want, long long got, const char* what) {
  if (want != kAny && got != kAny && want != got)
    fail_(step_ + what + " " + std::to_string(got) + ", want " + std::to_string(want));
}

long long ReadPathModel::Length() {
  std::error_code none;  // also for a directory
  const auto length = std::filesystem::file_size(cache().GetCachePath(), none);
  return none ? -1 : static_cast<long long>(length);
}

void ReadPathModel::Do(const Step& step, bool strict) {
  const size_t first_request = requests_.size();  // the queue is idle between steps
  const long long a = step.a;
  const long long b = step.b;
  long long got = kAny;
  switch (step.op) {
    case Op::kFetchWrite: FetchWrite(step); break;
    case Op::kReserve:
      got = cache().Reserve(a, b);
      for (long long s = a; got == kOk && s < a + b; s += kSectorSize) reserved_.insert(s);
      break;
    case Op::kClearReserved:
      Expect(kOk, cache().ClearReserved(a, b), "ClearReserved returned");
      reserved_.erase(reserved_.lower_bound(SectorOf(a)),
                      reserved_.lower_bound(SectorOf(a) + SectorOf(b + kSectorSize - 1)));
      break;
    case Op::kClock: AdvanceClockForTesting(std::chrono::milliseconds(a)); break;
    case Op::kEvict:
    case Op::kEvictOverQuota:
      cache().ClearOldCache(step.op == Op::kEvictOverQuota);
      got = Length();
      break;
    case Op::kCheckHandles:
      AdvanceClockForTesting(std::chrono::milliseconds(a));
      got = cache().CheckHandles();
      break;
    case Op::kClose:
    case Op::kCloseRemove:
      got = cache().Close(step.op == Op::kCloseRemove);
      if (step.op != Op::kCloseRemove || got != kOk) break;
      reserved_.clear();
      short_.clear();
      break;
    case Op::kReopen:
      cache_.reset();
      reserved_.clear();
      short_.clear();
      break;
    case Op::kDeleteFile: std::remove(cache().GetCachePath().c_str()); break;
    case Op::kBlockFile: mkdir(cache().GetCachePath().c_str(), 0700); break;
    case Op::kBreakStream:
      broken_ = std::make_unique<FaultyFileIo>();
      broken_->Break(FaultyFileIo::Call::kWrite, EIO);
      break;
    case Op::kMendStream: broken_.reset(); break;
    case Op::kFileSize: got = cache().GetFileSize(); break;
    case Op::kQuotaSize: got = cache().GetFileSizeForQuota(); break;
    case Op::kLength: got = Length(); break;
    case Op::kLargestEmpty: got = cache().GetLargestEmptyOffset(a); break;
    case Op::kSlot:
    case Op::kSlotStart: {
      // The last slot of the file may end where its bytes do.
      std::ifstream in(cache().GetCachePath(), std::ios::binary);
      std::string slot(static_cast<size_t>(kSectorSize), '\0');
      in.seekg(a).read(&slot[0], kSectorSize);
      const bool nothing_after = slot.find_first_not_of('\0', static_cast<size_t>(step.want)) == slot.npos;
      Expect(in.gcount() >= step.want && FakeOrigin::FirstMismatch(slot.data(), b, step.want) == -1 &&
                 (step.op == Op::kSlotStart || nothing_after),
             "the slot holds other bytes");
      break;
    }
    case Op::kQueue:
      if (a == kInline) queue_.reset();
      else if (queue_) queue_->set_mode(static_cast<TestQueue::Mode>(a - 1));
      else queue_ = std::make_unique<TestQueue>(static_cast<TestQueue::Mode>(a - 1));
      break;
    case Op::kRunHeld: queue_->RunHeld(); break;
    case Op::kCancelHeld: queue_->CancelHeld(); break;
    case Op::kHeld: got = static_cast<long long>(queue_->Held()); break;
    case Op::kOrigin:
      origin_mode_ = static_cast<int>(a);
      piece_sectors_ = std::max(1LL, b);
      calls_ = 0;
      break;
    case Op::kTimeout: timeout_ = a; break;
    case Op::kSet: {
      _CACHECONFIG conf = config_.GetConfig();
      if (a == kQuota) config_.SetQuota(static_cast<unsigned long long>(b));
      else conf.*kFields[a] = static_cast<uint64_t>(b);
      config_.Set(conf);
      break;
    }
    default: Read(step, strict);  // the reads
  }
  if (queue_) Expect(queue_->WaitIdle(), "the queue did not become idle");
  Expect(step.want, got, "returned");
  // In any order: held tasks run side by side.
  std::vector<Range> fetched(requests_.begin() + first_request, requests_.end()), wanted = step.fetched;
  std::sort(fetched.begin(), fetched.end());
  std::sort(wanted.begin(), wanted.end());
  Expect(!strict || fetched == wanted, "fetched other ranges");
}

void ReadPathModel::Read(const Step& step, bool strict) {
  const bool whole = step.op == Op::kWholeFileRead || step.op == Op::kClosedWholeFileRead;
  const bool closed = step.op == Op::kClosedRead || step.op == Op::kClosedWholeFileRead;
  const long long offset = step.a;
  const long long size = step.b;
  bool fetching = step.op != Op::kCachedRead;
  // A read waits for a reservation to settle; one the script made never
  // will, so a fuzzed read takes what is cached instead.
  if (!strict && (whole ? !reserved_.empty() : Touches(reserved_, offset, offset + size))) fetching = false;
  abnormal_ = false;
  // Guard bytes after the request catch a read that writes past its size.
  buffer_.assign(static_cast<size_t>(size + kGuardBytes), '\x5a');
  _READDATA rd{buffer_.data(), offset, static_cast<unsigned long long>(size), 0,
               std::make_shared<_FS_HANDLE>(_FS_HANDLE{1, closed ? 3 : 0, 77, "reader"}), file_size_,
               fetching ? this : nullptr, timeout_, whole};
  const unsigned int status = cache().Read(&rd);
  const auto served = static_cast<long long>(rd.transferred);
  Expect(step.want, status, "status");
  Expect(step.served, served, "served");
  Expect(std::all_of(buffer_.begin() + size, buffer_.end(), [](char c) { return c == '\x5a'; }),
         "a read wrote past the end of its buffer");
  // One memcmp: a byte loop under the fuzzer's comparison hooks would dominate the run.
  Expect(status != kOk || served == 0 ||
             (served <= size && offset + served <= file_size_ &&
              std::memcmp(buffer_.data(), OriginBytes(file_size_) + offset, static_cast<size_t>(served)) == 0),
         "a read at " + std::to_string(offset) + " served too much or bytes that are not the origin's");
  if (queue_) Expect(queue_->WaitIdle(), "the queue did not become idle");
  // A directory in the cache file's place (kBlockFile) fails every read.
  if (fetching && !queue_ && !closed && !abnormal_ && !std::filesystem::is_directory(cache().GetCachePath()) &&
      !Touches(short_, offset, std::min(offset + size, file_size_)))
    Expect(status == kOk && served == std::clamp(file_size_ - offset, 0LL, size),
           "a read at " + std::to_string(offset) + " failed or stopped short although every fetch worked");
}

void ReadPathModel::FetchWrite(const Step& step) {
  const long long length = std::min(step.b, file_size_ - step.a);
  if (step.a < 0 || length <= 0) return;
  long written = -1;
  const int result = cache().FetchWrite(step.a, OriginBytes(file_size_) + step.a, static_cast<long>(length), &written);
  Expect(step.want, result, "FetchWrite returned");
  // Pieces of sectors nobody reserved, which do not complete them, are not kept.
  Expect(result != 0 || (written >= 0 && written <= length), "FetchWrite stored more than it was given");
  if (result == static_cast<int>(kErrUnaligned)) return;
  // A failed write leaves its sectors reserved; a sector given only part of
  // its bytes stays reserved (or absent) until it has them all.
  for (long long s = SectorOf(step.a); s < step.a + length; s += kSectorSize) {
    const bool whole = step.a <= s && step.a + length >= std::min(s + kSectorSize, file_size_);
    if (result != 0 || !whole) reserved_.insert(s);
    else reserved_.erase(s);
  }
}
