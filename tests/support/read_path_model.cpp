#include "support/read_path_model.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
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

bool IsFetchWriteStatus(int result) {
  const auto status = static_cast<AERROR>(result);
  return status == kOk || status == kErrRead || status == kErrUnaligned || status == kErrFileWrite;
}

}  // namespace

// Hands the range over in pieces that end on sector boundaries, as the
// client's fetcher does, or misbehaves as told.
class ReadPathModel::Origin : public IFetch {
 public:
  explicit Origin(ReadPathModel* model) : model_(model) {}

  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override {
    const long long size = model_->file_size_;
    OriginMode mode;
    {
      std::lock_guard<std::mutex> guard(model_->lock_);
      requests.emplace_back(offset, length);
      handles.push_back(handle);
      mode = ModeOfCall(calls++);
      abnormal = abnormal || mode != kNormal;
    }
    model_->Expect(offset >= 0 && offset < size && length > 0, "a fetch outside the file");
    if (mode == kFail) return 1;
    if (mode == kNothing) return 0;
    long long end = std::min(offset + length, size);
    if (mode == kExtra) end = std::min(end + kSectorSize, size);
    long long stop_at = end;
    if (mode == kShort || mode == kShortThenFail)
      stop_at = std::min(end, SectorOf(offset) + std::max(kSectorSize, SectorOf((end - offset) / 2)));
    for (long long position = offset; position < end;) {
      if (position >= stop_at) return mode == kShortThenFail ? 1 : 0;
      long long piece_end = std::min(end, SectorOf(position) + piece_sectors * kSectorSize);
      if (mode == kPartialThenFail) piece_end = position + std::max(1LL, (piece_end - position) / 2);
      long written = -1;
      const long count = static_cast<long>(piece_end - position);
      const int result = callback->FetchWrite(position, OriginBytes(size) + position, count, &written);
      model_->Expect(IsFetchWriteStatus(result), "FetchWrite returned an undocumented status");
      std::lock_guard<std::mutex> guard(model_->lock_);
      if (result != 0) {
        abnormal = true;
        return 1;
      }
      model_->Expect(written == count, "FetchWrite stored a different count than it was given");
      if (mode == kPartialThenFail) {
        model_->maybe_short_.insert(SectorOf(piece_end));
        return 1;
      }
      position = piece_end;
    }
    return 1LL << 32;  // only the low 32 bits are the status
  }
  std::string HandleInfo(_FS_HANDLE*) override { return "model"; }

  // Each call takes a mode of its own from the pattern byte, in turn.
  OriginMode ModeOfCall(int call) const {
    if (mode < kMixed) return static_cast<OriginMode>(mode);
    const int pick = (((mode - kMixed) >> ((call * 3) % 8)) + call) % 6;
    return pick == kShort && (mode & 1) != 0 ? kShortThenFail : static_cast<OriginMode>(pick);
  }

  int mode = kNormal;
  int piece_sectors = 1;
  // Guarded by the model's lock_.
  std::vector<Range> requests;
  std::vector<std::shared_ptr<_FS_HANDLE>> handles;
  bool abnormal = false;  // a call misbehaved or a delivery was refused since the last read began
  int calls = 0;          // since the last kOrigin step

 private:
  ReadPathModel* const model_;
};

ReadPathModel::ReadPathModel(std::string cache_dir, long long file_size, const _CACHECONFIG& config,
                             std::function<void(const std::string&)> fail)
    : dir_(std::move(cache_dir)), file_size_(file_size), fail_(std::move(fail)), origin_(new Origin(this)) {
  config_.Set(config);
  OriginBytes(file_size);
}

ReadPathModel::~ReadPathModel() = default;

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

void ReadPathModel::ExpectValue(long long want, long long got, const char* what) {
  if (want != kAny && want != got) fail_(step_ + what + " " + std::to_string(got) + ", want " + std::to_string(want));
}

bool ReadPathModel::Touches(const std::set<long long>& sectors, long long from, long long to) const {
  auto it = sectors.lower_bound(SectorOf(from));
  return it != sectors.end() && *it < to;
}

long long ReadPathModel::Length() {
  struct stat st {};
  return stat(cache().GetCachePath().c_str(), &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : -1;
}

void ReadPathModel::CheckSlots() {
  Expect(Length() % kSectorSize <= 0, "the cache file is not a whole number of slots");
}

void ReadPathModel::Forget() {
  std::lock_guard<std::mutex> guard(lock_);
  maybe_reserved_.clear();
  maybe_short_.clear();
}

void ReadPathModel::Do(const Step& step, bool strict) {
  size_t first_request;
  {
    std::lock_guard<std::mutex> guard(lock_);
    first_request = origin_->requests.size();
  }
  const long long a = step.a;
  const long long b = step.b;
  long long got = kAny;
  switch (step.op) {
    case Op::kRead:
    case Op::kCachedRead:
    case Op::kWholeFileRead:
    case Op::kClosedRead:
    case Op::kClosedWholeFileRead: Read(step, strict); break;
    case Op::kFetchWrite: FetchWrite(step); break;
    case Op::kReserve: {
      const unsigned int result = cache().Reserve(a, b);
      got = result;
      Expect(result == kOk || result == kErrUnaligned || result == kNothingReserved, "Reserve: undocumented status");
      Expect((a % kSectorSize != 0) == (result == kErrUnaligned), "Reserve misjudged the alignment");
      std::lock_guard<std::mutex> guard(lock_);
      for (long long s = a; result == kOk && s < a + b; s += kSectorSize) maybe_reserved_.insert(s);
      break;
    }
    case Op::kClearReserved: {
      Expect(cache().ClearReserved(a, b) == kOk, "ClearReserved did not return kOk");
      std::lock_guard<std::mutex> guard(lock_);
      for (long long i = 0; i < (b + kSectorSize - 1) / kSectorSize; ++i)
        maybe_reserved_.erase(SectorOf(a) + i * kSectorSize);
      break;
    }
    case Op::kClock: AdvanceClockForTesting(std::chrono::milliseconds(a)); break;
    case Op::kEvict:
    case Op::kEvictOverQuota:
      cache().ClearOldCache(step.op == Op::kEvictOverQuota);
      CheckSlots();
      got = Length();
      break;
    case Op::kCheckHandles:
      AdvanceClockForTesting(std::chrono::milliseconds(a));
      got = cache().CheckHandles();
      break;
    case Op::kClose:
    case Op::kCloseRemove: {
      const unsigned int result = cache().Close(step.op == Op::kCloseRemove);
      got = result;
      Expect(result == kOk || result == kErrNotOpen, "Close returned an undocumented status");
      if (step.op == Op::kCloseRemove && result == kOk) Forget();
      break;
    }
    case Op::kReopen:
      cache_.reset();
      unopenable_ = false;
      Forget();
      cache();
      break;
    case Op::kDeleteFile: std::remove(cache().GetCachePath().c_str()); break;
    case Op::kBlockFile: unopenable_ = unopenable_ || mkdir(cache().GetCachePath().c_str(), 0700) == 0; break;
    case Op::kBreakStream: {
      stream_fd_ = fileno(cache().GetHandle().get());
      saved_fd_ = dup(stream_fd_);
      const int read_only = open(cache().GetCachePath().c_str(), O_RDONLY);
      Expect(read_only >= 0 && dup2(read_only, stream_fd_) == stream_fd_, "cannot break the stream");
      close(read_only);
      break;
    }
    case Op::kMendStream:
      dup2(saved_fd_, stream_fd_);
      close(saved_fd_);
      break;
    case Op::kFileSize: got = cache().GetFileSize(); break;
    case Op::kQuotaSize:
      got = cache().GetFileSizeForQuota();
      Expect(got >= 0, "a negative size for the quota");
      break;
    case Op::kLength: got = Length(); break;
    case Op::kLargestEmpty:
      got = cache().GetLargestEmptyOffset(a);
      Expect(got == -1 || (got >= 0 && got % kSectorSize == 0), "GetLargestEmptyOffset is not a sector");
      CheckSlots();
      break;
    case Op::kSlot:
    case Op::kSlotStart: {
      std::ifstream in(cache().GetCachePath(), std::ios::binary);
      std::vector<char> slot(static_cast<size_t>(kSectorSize));
      Expect(in.seekg(a).read(slot.data(), kSectorSize).good(), "the slot is not in the file");
      Expect(FakeOrigin::FirstMismatch(slot.data(), b, step.want) == -1, "the slot holds other bytes");
      Expect(step.op == Op::kSlotStart || std::all_of(slot.begin() + step.want, slot.end(), [](char c) { return c == 0; }),
             "the slot is not zero padded");
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
      origin_->mode = static_cast<int>(a);
      origin_->piece_sectors = std::max(1LL, b);
      origin_->calls = 0;
      break;
    case Op::kTimeout: timeout_ = a; break;
    case Op::kSet:
      if (a == kQuota) {
        config_.SetQuota(static_cast<unsigned long long>(b));
      } else {
        _CACHECONFIG conf = config_.GetConfig();
        conf.*kFields[a] = static_cast<uint64_t>(b);
        config_.Set(conf);
      }
      break;
  }
  if (queue_) Expect(queue_->WaitIdle(), "the queue did not become idle");
  if (got != kAny) ExpectValue(step.want, got, "returned");
  if (!strict) return;
  std::lock_guard<std::mutex> guard(lock_);
  const std::vector<Range> fetched(origin_->requests.begin() + static_cast<long>(first_request),
                                   origin_->requests.end());
  if (fetched == step.fetched) return;
  std::string list;
  for (const Range& r : fetched) list += " " + std::to_string(r.first) + "+" + std::to_string(r.second);
  Expect(false, "fetched" + list);
}

void ReadPathModel::Read(const Step& step, bool strict) {
  bool fetching = step.op != Op::kCachedRead;
  const bool whole = step.op == Op::kWholeFileRead || step.op == Op::kClosedWholeFileRead;
  const bool closed = step.op == Op::kClosedRead || step.op == Op::kClosedWholeFileRead;
  const long long offset = step.a;
  const long long size = step.b;
  const long long end = offset + size;
  size_t first_request;
  {
    std::lock_guard<std::mutex> guard(lock_);
    // A read waits for a reservation to settle; one the script made never
    // will, so a fuzzed read takes what is cached instead.
    if (!strict && (whole ? !maybe_reserved_.empty() : Touches(maybe_reserved_, offset, end))) fetching = false;
    first_request = origin_->requests.size();
    origin_->abnormal = false;
  }
  // Guard bytes after the request catch a read that writes past its size.
  if (buffer_.size() < static_cast<size_t>(size + kGuardBytes)) buffer_.resize(static_cast<size_t>(size + kGuardBytes));
  std::fill(buffer_.begin(), buffer_.begin() + size + kGuardBytes, '\x5a');
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->type = 1;
  handle->state = closed ? 3 : 0;
  handle->id = 77;
  handle->info = "reader";
  _READDATA rd{buffer_.data(), offset, static_cast<unsigned long long>(size), 0, handle, file_size_,
               fetching ? origin_.get() : nullptr, timeout_, whole};
  const unsigned int status = cache().Read(&rd);
  const auto served = static_cast<long long>(rd.transferred);
  ExpectValue(step.want, status, "status");
  ExpectValue(step.served, served, "served");
  Expect(status == kOk || status == kErrRead || status == kErrHandleClosed || status == kErrFileRead,
         "Read returned an undocumented status");
  Expect(std::all_of(buffer_.begin() + size, buffer_.begin() + size + kGuardBytes, [](char c) { return c == '\x5a'; }),
         "a read wrote past the end of its buffer");
  if (status == kOk) {
    Expect(served <= size && (served == 0 || offset + served <= file_size_), "a read served too much");
    // One memcmp first: a byte loop under the fuzzer's comparison hooks would dominate the run.
    if (served > 0 && std::memcmp(buffer_.data(), OriginBytes(file_size_) + offset, static_cast<size_t>(served)) != 0)
      Expect(false, "byte " + std::to_string(FakeOrigin::FirstMismatch(buffer_.data(), offset, served)) +
                        " of a read at " + std::to_string(offset) + " is not the origin's");
  }
  std::lock_guard<std::mutex> guard(lock_);
  for (size_t i = first_request; i < origin_->handles.size(); ++i) {
    const _FS_HANDLE* h = origin_->handles[i].get();
    Expect(h == handle.get() || (whole && h->type == 2 && h->id == 0 && h->info == handle->info),
           "a fetch made with a handle that is not the reader's");
  }
  if (fetching && !queue_ && !closed && !unopenable_ && !origin_->abnormal &&
      !Touches(maybe_short_, offset, std::min(end, file_size_))) {
    const long long expected = offset >= file_size_ ? 0 : std::min(size, file_size_ - offset);
    Expect(status == kOk && served == expected,
           "a read at " + std::to_string(offset) + " size " + std::to_string(size) + " of a " +
               std::to_string(file_size_) + "-byte file gave " + std::to_string(status) + ", " +
               std::to_string(served) + " bytes, although every fetch worked");
  }
}

void ReadPathModel::FetchWrite(const Step& step) {
  const long long sector = SectorOf(step.a);
  const long long length = std::min(step.b, file_size_ - sector);
  if (length <= 0) return;
  long written = -1;
  const int result = cache().FetchWrite(step.a, OriginBytes(file_size_) + sector, static_cast<long>(length), &written);
  ExpectValue(step.want, result, "FetchWrite returned");
  Expect(IsFetchWriteStatus(result), "FetchWrite returned an undocumented status");
  Expect(step.a != sector || result != static_cast<int>(kErrUnaligned), "an aligned fetch write was refused");
  Expect(result != 0 || written == length, "FetchWrite stored a different count than it was given");
  if (result == static_cast<int>(kErrUnaligned)) return;
  std::lock_guard<std::mutex> guard(lock_);
  for (long long s = sector; s < sector + length; s += kSectorSize) {
    if (result != 0) {
      maybe_reserved_.insert(s);  // a failed write leaves its sector reserved
      continue;
    }
    maybe_reserved_.erase(s);
    if (std::min(kSectorSize, sector + length - s) < std::min(kSectorSize, file_size_ - s)) {
      maybe_short_.insert(s);
    } else {
      maybe_short_.erase(s);
    }
  }
  CheckSlots();
}
