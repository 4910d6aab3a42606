// korv_soak: many client threads on one manager for minutes, with faults.
//
// Eight threads (SOAK_THREADS) share one manager on a temporary directory
// (64 MiB limit, clearing every 100 ms, sector ages of 0-1 s over the limit;
// the periodic ages alternate between 0-1 s and 30 s-1 h) and a pool of
// four workers. Each thread streams through shared read-only files (with
// local re-reads), injecting origin faults (fail, short, nothing, extra) and
// closed handles into some reads, and works on a private file of its own:
// writes, read-backs against its model, mode switches, renames (Rehash),
// close and reopen. Another thread keeps changing the settings and the
// limit. Every byte a read serves is checked: against the origin for the
// shared files and for private files in mode 'r', against what the thread
// wrote for its private file in mode 'w'.
//
// The directory is checked at every clearing pass (seen in the manager's
// log). What the quota thread guarantees is no hard ceiling: a pass that
// starts over the limit drops every read-only sector whose last delivery or
// read is older than the over-limit ages (whole seconds, so up to age + 1 s),
// and a pass never touches writable files. So at a pass the directory may
// exceed the limit by the writable files plus the sectors delivered or read
// within the last (age + 1 s + one quota cycle + slack); that sum is the
// bound checked. The origin is throttled (SOAK_RATE_MIB, default 24 MiB/s)
// so that this recent set stays well below the shared data (384 MiB): a
// clearing that stopped working would break the bound within seconds.
//
// Prints the figures at the end; exits 1 on any wrong byte, unexpected
// status or violated bound. SOAK_SECONDS sets the duration (default 120).
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "cache/sector.h"
#include "faults/fault_support.h"
#include "korvcache.h"
#include "support/fake_origin.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

using Clock = std::chrono::steady_clock;
using faults::kMiB;
constexpr long long S = kSectorSize;
constexpr int kSharedFiles = 16;
constexpr long long kSharedSize = 24 * kMiB;
constexpr long long kPrivateSize = 4 * kMiB;
// Sector ages the settings thread picks from, in seconds.
constexpr int kMaxAge = 1;
// age + 1 s rounding + a 300 ms quota cycle + the pass itself and this
// program's own polling.
constexpr auto kRecentWindow = std::chrono::milliseconds((kMaxAge + 1) * 1000 + 300 + 1200);

long long EnvNumber(const char* name, long long fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  return std::atoll(text);
}

struct Counters {
  std::atomic<long long> operations{0};
  std::atomic<long long> faults{0};
  std::atomic<long long> origin_faults{0};
  std::atomic<long long> closed_handles{0};
  std::atomic<long long> bytes_verified{0};
  std::atomic<long long> reads_ok{0};
  std::atomic<long long> reads_failed{0};
  std::atomic<long long> clean_reads_failed{0};
  std::atomic<long long> writes{0};
  std::atomic<long long> mode_switches{0};
  std::atomic<long long> rehashes{0};
  std::atomic<long long> reopens{0};
  std::atomic<long long> settings_changes{0};
  std::atomic<long long> limit_changes{0};
  std::atomic<long long> wrong_bytes{0};
  std::atomic<long long> violations{0};
};
Counters counters;

std::mutex report_lock;
__attribute__((format(printf, 1, 2))) void Violation(const char* format, ...) {
  counters.violations.fetch_add(1);
  std::lock_guard<std::mutex> guard(report_lock);
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "VIOLATION: ");
  std::vfprintf(stderr, format, args);
  std::fprintf(stderr, "\n");
  va_end(args);
}

// When each sector of each file was last delivered or served.
class AccessLog {
 public:
  void Touch(int file, long long from, long long to) {
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> guard(lock_);
    for (long long s = SectorOf(from); s < to; s += S) last_[Key(file, s)] = now;
  }
  size_t TouchedSince(Clock::time_point since) {
    std::lock_guard<std::mutex> guard(lock_);
    size_t n = 0;
    for (const auto& entry : last_) n += entry.second >= since;
    return n;
  }

 private:
  static uint64_t Key(int file, long long sector) { return (static_cast<uint64_t>(file) << 40) | (sector / S); }
  std::mutex lock_;
  std::unordered_map<uint64_t, Clock::time_point> last_;
};
AccessLog access_log;

// A shared rate for every delivery of every origin.
class Throttle {
 public:
  explicit Throttle(double bytes_per_second) : rate_(bytes_per_second) {}
  void Take(long long bytes) {
    Clock::time_point until;
    {
      std::lock_guard<std::mutex> guard(lock_);
      const Clock::time_point now = Clock::now();
      if (next_ < now) next_ = now;
      next_ += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bytes / rate_));
      until = next_;
    }
    std::this_thread::sleep_until(until);
  }

 private:
  const double rate_;
  std::mutex lock_;
  Clock::time_point next_{};
};
std::unique_ptr<Throttle> throttle;

// A FakeOrigin whose deliveries are throttled and recorded as accesses of
// file `id`.
class SoakOrigin : public FakeOrigin {
 public:
  SoakOrigin(long long size, int id, Mode mode) : FakeOrigin(size), id_(id) { set_mode(mode); }

  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                  IFetchCallback* callback) override {
    Recorder recorder(callback, id_);
    const long long result = FakeOrigin::Fetch(offset, length, std::move(handle), &recorder);
    // The base class remembers every request; nobody here needs them.
    ClearRequests();
    return result;
  }

 private:
  class Recorder : public IFetchCallback {
   public:
    Recorder(IFetchCallback* inner, int id) : inner_(inner), id_(id) {}
    int FetchWrite(long long offset, const char* data, long length, long* written) override {
      throttle->Take(length);
      const int result = inner_->FetchWrite(offset, data, length, written);
      // Recorded after the store: a clearing pass cannot see the sector
      // before this program counts it as recent.
      access_log.Touch(id_, offset, offset + length);
      return result;
    }

   private:
    IFetchCallback* const inner_;
    const int id_;
  };
  const int id_;
};

// The manager's log: counts lines by level and notes every clearing pass.
class SoakLog : public ILog {
 public:
  void Write(LOGLEVEL level, const char* format, va_list args) override {
    if (level == LOGLEVEL_ERROR) errors_.fetch_add(1, std::memory_order_relaxed);
    if (level != LOGLEVEL_DEBUG || std::strcmp(format, "[CACHE     ] %s") != 0) return;
    char line[512];
    std::vsnprintf(line, sizeof line, format, args);
    const char* total = std::strstr(line, "Total cache : ");
    if (total == nullptr) return;
    long long bytes = 0;
    long long limit = 0;
    if (std::sscanf(total, "Total cache : %lld(limits : %lld)", &bytes, &limit) != 2) return;
    std::lock_guard<std::mutex> guard(lock_);
    ++passes_;
    last_total_ = bytes;
    last_limit_ = limit;
  }
  long long Passes(long long* total, long long* limit) {
    std::lock_guard<std::mutex> guard(lock_);
    *total = last_total_;
    *limit = last_limit_;
    return passes_;
  }
  long long Errors() const { return errors_.load(); }

 private:
  std::atomic<long long> errors_{0};
  std::mutex lock_;
  long long passes_ = 0;
  long long last_total_ = 0;
  long long last_limit_ = 0;
};

struct Shared {
  std::string name;
  // One origin per fault, all with the same bytes: a read picks its fault by
  // picking its fetcher, so faults never leak into other threads' reads.
  std::vector<std::unique_ptr<SoakOrigin>> origins;  // index = FakeOrigin::Mode
};

struct Options {
  long long seconds;
  int threads;
  std::string path;
};

// One client thread.
class Client {
 public:
  Client(int index, ICache_V2* cache, std::vector<Shared>& shared, Clock::time_point deadline)
      : index_(index),
        cache_(cache),
        shared_(shared),
        deadline_(deadline),
        random_(static_cast<uint64_t>(index) * 7919 + 17),
        own_origin_(kPrivateSize + 1000 * index, 1000 + index, FakeOrigin::Mode::kNormal) {}

  void Run() {
    OpenOwn();
    while (Clock::now() < deadline_) {
      counters.operations.fetch_add(1, std::memory_order_relaxed);
      const int pick = Uniform(0, 99);
      if (pick < 60) {
        SharedRead();
      } else if (pick < 85) {
        OwnReadOrWrite();
      } else if (pick < 91) {
        SwitchOwnMode();
      } else if (pick < 95) {
        RenameOwn();
      } else if (pick < 97) {
        ReopenOwn();
      } else {
        DropShared();
      }
    }
    own_.reset();
    cache_->Close(own_name_.c_str());
  }

 private:
  int Uniform(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  long long Uniform64(long long low, long long high) {
    return std::uniform_int_distribution<long long>(low, high)(random_);
  }

  // Shared files are held for one read only, as a client holds a file
  // between its open and its release: an object dropped from the manager's
  // table (DropShared) while a client still holds it is no longer cleared.
  std::shared_ptr<ICacheObj> OpenShared(int k) {
    SoakOrigin& normal = *shared_[static_cast<size_t>(k)].origins[0];
    try {
      return cache_->Open(shared_[static_cast<size_t>(k)].name.c_str(), 'r', normal.size(), &normal);
    } catch (AERROR error) {
      Violation("thread %d: Open of %s threw %u", index_, shared_[static_cast<size_t>(k)].name.c_str(), error);
    }
    return nullptr;
  }

  // Streams through a shared file; now and then reads again just behind.
  void SharedRead() {
    if (cursor_file_ < 0 || cursor_ >= shared_[static_cast<size_t>(cursor_file_)].origins[0]->size()) {
      cursor_file_ = Uniform(0, kSharedFiles - 1);
      cursor_ = Uniform64(0, kSharedSize / S - 2) * S;
    }
    std::shared_ptr<ICacheObj> file = OpenShared(cursor_file_);
    if (!file) return;
    Shared& shared = shared_[static_cast<size_t>(cursor_file_)];
    const long long size_left = shared.origins[0]->size() - cursor_;
    long long offset = cursor_;
    long long size = std::min<long long>(Uniform64(64 * 1024, kMiB), size_left);
    const bool again = Uniform(0, 9) == 0 && cursor_ > 2 * kMiB;
    if (again) offset = cursor_ - Uniform64(1, 2 * kMiB);

    int fault = 0;  // FakeOrigin::Mode
    if (Uniform(0, 99) < 15) fault = Uniform(1, 4);
    const bool closed = Uniform(0, 99) < 5;
    auto handle = faults::OpenHandle();
    if (closed) faults::CloseClientHandle(handle);
    if (fault != 0 || closed) counters.faults.fetch_add(1, std::memory_order_relaxed);
    if (fault != 0) counters.origin_faults.fetch_add(1, std::memory_order_relaxed);
    if (closed) counters.closed_handles.fetch_add(1, std::memory_order_relaxed);

    SoakOrigin& origin = *shared.origins[static_cast<size_t>(fault)];
    faults::ReadOutcome r = faults::ReadAndCheck(*file, origin, offset, static_cast<size_t>(size), 0, handle);
    const bool allowed = r.status == kOk || r.status == kErrRead || (closed && r.status == kErrHandleClosed);
    if (!allowed) Violation("thread %d: shared read of %s at %lld gave %u", index_, shared.name.c_str(), offset, r.status);
    if (r.status != kOk) {
      counters.reads_failed.fetch_add(1, std::memory_order_relaxed);
      if (fault == 0 && !closed) counters.clean_reads_failed.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    counters.reads_ok.fetch_add(1, std::memory_order_relaxed);
    if (!r.Clean()) {
      counters.wrong_bytes.fetch_add(1);
      Violation("thread %d: WRONG BYTE %lld in shared read of %s at %lld (+%lld), fault %d", index_, r.mismatch,
                shared.name.c_str(), offset, size, fault);
    } else if (r.transferred != static_cast<unsigned long long>(size)) {
      Violation("thread %d: shared read of %s at %lld served %llu of %lld", index_, shared.name.c_str(), offset,
                r.transferred, size);
    }
    counters.bytes_verified.fetch_add(static_cast<long long>(r.transferred), std::memory_order_relaxed);
    access_log.Touch(cursor_file_, offset, offset + static_cast<long long>(r.transferred));
    if (!again) cursor_ += size;
  }

  // Other threads may be inside a read of it: they finish with the object
  // they hold, the next open starts a new one.
  void DropShared() { cache_->Close(shared_[static_cast<size_t>(Uniform(0, kSharedFiles - 1))].name.c_str()); }

  // The private file: its current name, object, mode and expected bytes.
  void OpenOwn() {
    own_name_ = "t" + std::to_string(index_) + (own_alternate_ ? "/own-b.bin" : "/own-a.bin");
    try {
      own_ = cache_->Open(own_name_.c_str(), own_mode_, own_origin_.size(), &own_origin_);
    } catch (AERROR error) {
      Violation("thread %d: Open of %s threw %u", index_, own_name_.c_str(), error);
      own_.reset();
    }
    ResetModel();
  }

  void ResetModel() {
    model_.resize(static_cast<size_t>(own_origin_.size()));
    for (long long i = 0; i < own_origin_.size(); ++i) model_[static_cast<size_t>(i)] = FakeOrigin::ByteAt(i);
  }

  void OwnReadOrWrite() {
    if (!own_) return;
    const long long size_limit = own_origin_.size();
    const long long offset = Uniform64(0, size_limit - 1);
    const long long size = std::min<long long>(Uniform64(1, 384 * 1024), size_limit - offset);
    if (Uniform(0, 1) == 0) {
      std::vector<char> data(static_cast<size_t>(size));
      const char seed = static_cast<char>(Uniform(0, 255));
      for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(seed + static_cast<char>(i % 251));
      _WRITEDATA wd{data.data(), offset, data.size(), 0, faults::OpenHandle(), size_limit, &own_origin_};
      const unsigned int status = own_->Write(&wd);
      counters.writes.fetch_add(1, std::memory_order_relaxed);
      if (own_mode_ == 'r') {
        if (status != kErrReadOnly) Violation("thread %d: write in mode r gave %u", index_, status);
        return;
      }
      if (status != kOk || wd.transferred != data.size()) {
        Violation("thread %d: write of %lld at %lld gave %u (%llu written)", index_, size, offset, status,
                  wd.transferred);
        return;
      }
      std::copy(data.begin(), data.end(), model_.begin() + offset);
      return;
    }
    std::vector<char> buffer(static_cast<size_t>(size));
    _READDATA rd{buffer.data(), offset, buffer.size(), 0, faults::OpenHandle(), size_limit, &own_origin_, 0, false};
    const unsigned int status = own_->Read(&rd);
    if (status == kErrRead && own_mode_ == 'r') {
      counters.reads_failed.fetch_add(1, std::memory_order_relaxed);
      counters.clean_reads_failed.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    if (status != kOk) {
      Violation("thread %d: read of own file (mode %c) at %lld gave %u", index_, own_mode_, offset, status);
      counters.reads_failed.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    counters.reads_ok.fetch_add(1, std::memory_order_relaxed);
    if (rd.transferred != buffer.size()) {
      Violation("thread %d: read of own file (mode %c) at %lld served %llu of %lld", index_, own_mode_, offset,
                rd.transferred, size);
    }
    const size_t n = std::min<size_t>(rd.transferred, buffer.size());
    if (!std::equal(buffer.begin(), buffer.begin() + static_cast<long>(n), model_.begin() + offset)) {
      counters.wrong_bytes.fetch_add(1);
      Violation("thread %d: WRONG BYTES reading own file (mode %c) at %lld (+%lld)", index_, own_mode_, offset,
                size);
    }
    counters.bytes_verified.fetch_add(static_cast<long long>(n), std::memory_order_relaxed);
    if (own_mode_ == 'r') access_log.Touch(1000 + index_, offset, offset + static_cast<long long>(n));
  }

  // A switch starts an empty file of the other form: nothing is carried.
  void SwitchOwnMode() {
    if (!own_) return;
    const char mode = own_mode_ == 'w' ? 'r' : 'w';
    const unsigned int status = own_->SetMode(mode, own_origin_.size(), &own_origin_);
    counters.mode_switches.fetch_add(1, std::memory_order_relaxed);
    if (status != kOk) {
      Violation("thread %d: SetMode(%c) gave %u", index_, mode, status);
      return;
    }
    own_mode_ = mode;
    ResetModel();
  }

  // The same object under its other name: the contents stay.
  void RenameOwn() {
    if (!own_) return;
    const std::string next = "t" + std::to_string(index_) + (own_alternate_ ? "/own-a.bin" : "/own-b.bin");
    const std::string file_name = "t" + std::to_string(index_) + (own_alternate_ ? "-own-a.bin" : "-own-b.bin");
    const unsigned int status = cache_->Rehash(own_name_.c_str(), next.c_str(), file_name.c_str());
    counters.rehashes.fetch_add(1, std::memory_order_relaxed);
    if (status != kOk) {
      Violation("thread %d: Rehash %s -> %s gave %u", index_, own_name_.c_str(), next.c_str(), status);
      return;
    }
    own_alternate_ = !own_alternate_;
    own_name_ = next;
    std::shared_ptr<ICacheObj> again = cache_->Open(own_name_.c_str(), own_mode_, own_origin_.size(), &own_origin_);
    if (again != own_) Violation("thread %d: %s is another object after Rehash", index_, own_name_.c_str());
  }

  void ReopenOwn() {
    own_.reset();
    cache_->Close(own_name_.c_str());
    counters.reopens.fetch_add(1, std::memory_order_relaxed);
    OpenOwn();
  }

  const int index_;
  ICache_V2* const cache_;
  std::vector<Shared>& shared_;
  const Clock::time_point deadline_;
  std::mt19937_64 random_;

  int cursor_file_ = -1;
  long long cursor_ = 0;

  SoakOrigin own_origin_;
  std::shared_ptr<ICacheObj> own_;
  std::string own_name_;
  bool own_alternate_ = false;
  char own_mode_ = 'w';
  std::vector<char> model_;
};

// Keeps changing the settings and the limit. The ages that apply over the
// limit stay within 0-kMaxAge s; those of the periodic clearing alternate
// every 5 s between as short and 30 s to an hour, so that the directory
// grows past the limit and the clearing over the limit has to bring it back.
void Tuner(ICache_V2* cache, Clock::time_point deadline) {
  std::mt19937_64 random(4242);
  auto pick = [&](long long low, long long high) { return std::uniform_int_distribution<long long>(low, high)(random); };
  int round = 0;
  const Clock::time_point started = Clock::now();
  while (Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(pick(100, 300)));
    const bool lazy = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count() / 5 % 2 == 1;
    const long long low = lazy ? 30 : 0;
    const long long high = lazy ? 3600 : kMaxAge;
    char json[512];
    std::snprintf(json, sizeof json,
                  R"({"cache":{"ra":{"hit":%lld,"min":%lld,"max":%lld},"read":{"timeout":%lld,"maxfetch":%lld},)"
                  R"("clear":{"period":100,"usedblock":%lld,"unusedblock":%lld,)"
                  R"("over":{"usedblock":%lld,"unusedblock":%lld}}}})",
                  pick(0, 4), pick(1, 4) * S, pick(2, 16) * S, pick(5000, 15000), pick(1, 4) * S, pick(low, high),
                  pick(low, high), pick(0, kMaxAge), pick(0, kMaxAge));
    if (cache->SetConfiguration(json) != kOk) Violation("SetConfiguration refused %s", json);
    counters.settings_changes.fetch_add(1, std::memory_order_relaxed);
    if (++round % 4 == 0) {
      const unsigned long long limit = static_cast<unsigned long long>(pick(64, 96)) * kMiB;
      if (cache->SetLimit(limit) != kOk) Violation("SetLimit(%llu) refused", limit);
      if (cache->SetLimit(kMiB) != kErrLimitTooSmall) Violation("SetLimit(1 MiB) accepted");
      counters.limit_changes.fetch_add(1, std::memory_order_relaxed);
    }
  }
}

// Bytes of the directory's entries as the manager counts them (st_size),
// and those of the writable files among them.
void MeasureDirectory(const std::string& path, long long* total, long long* writable) {
  *total = 0;
  *writable = 0;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat st;
    if (stat((path + "/" + name).c_str(), &st) != 0) continue;
    *total += static_cast<long long>(st.st_size);
    const bool sector_cache = name.size() > 6 && name.compare(name.size() - 6, 6, ".cache") == 0;
    if (!sector_cache) *writable += static_cast<long long>(st.st_size);
  }
  closedir(dir);
}

double MiB(long long bytes) { return static_cast<double>(bytes) / static_cast<double>(kMiB); }

}  // namespace

int main() {
  const long long seconds = EnvNumber("SOAK_SECONDS", 120);
  const int threads = static_cast<int>(EnvNumber("SOAK_THREADS", 8));
  throttle = std::make_unique<Throttle>(static_cast<double>(EnvNumber("SOAK_RATE_MIB", 24) * kMiB));

  TempDir dir;
  const std::string path = dir.path() + "/cache";
  SoakLog log;
  Cache_BindLogger(&log);
  ICache_V2* cache = nullptr;
  if (InitCache(path.c_str(), 64 * kMiB, &cache) != kOk) {
    std::fprintf(stderr, "InitCache failed\n");
    return 1;
  }
  // Every setting, so that whatever settings file lies about does not count.
  cache->SetConfiguration(R"({"cache":{"ra":{"hit":2,"min":1048576,"max":4194304},)"
                          R"("read":{"timeout":10000,"maxfetch":1048576},)"
                          R"("clear":{"period":100,"usedblock":1,"unusedblock":1,)"
                          R"("over":{"usedblock":0,"unusedblock":0}}}})");

  std::vector<Shared> shared(kSharedFiles);
  for (int k = 0; k < kSharedFiles; ++k) {
    shared[static_cast<size_t>(k)].name = "shared/file" + std::to_string(k) + ".bin";
    for (int mode = 0; mode < 5; ++mode) {
      shared[static_cast<size_t>(k)].origins.push_back(std::make_unique<SoakOrigin>(
          kSharedSize - 1000 * k, k, static_cast<FakeOrigin::Mode>(mode)));
    }
  }

  std::printf("korv_soak: %d threads, %lld s, cache %s\n", threads, seconds, path.c_str());
  std::fflush(stdout);
  const Clock::time_point started = Clock::now();
  const Clock::time_point deadline = started + std::chrono::seconds(seconds);
  long long passes_checked = 0;
  long long max_directory = 0;
  long long max_directory_limit = 0;
  long long max_over_limit = 0;
  long long max_over_limit_any = 0;
  long long max_bound_use = 0;
  long long max_recent_sectors = 0;
  long long last_limit = static_cast<long long>(cache->GetLimit());
  {
    TestQueue queue(TestQueue::Mode::kRun, 4);
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
      clients.push_back(std::make_unique<Client>(i, cache, shared, deadline));
      running.emplace_back([c = clients.back().get()] { c->Run(); });
    }
    std::thread tuner(Tuner, cache, deadline);

    long long seen_passes = 0;
    Clock::time_point next_report = started + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      long long total = 0;
      long long writable = 0;
      MeasureDirectory(path, &total, &writable);
      const long long limit = static_cast<long long>(cache->GetLimit());
      max_over_limit_any = std::max(max_over_limit_any, total - limit);
      if (total > max_directory) {
        max_directory = total;
        max_directory_limit = limit;
      }
      long long pass_total = 0;
      long long pass_limit = 0;
      const long long passes = log.Passes(&pass_total, &pass_limit);
      if (passes != seen_passes) {
        seen_passes = passes;
        ++passes_checked;
        const long long recent = static_cast<long long>(access_log.TouchedSince(Clock::now() - kRecentWindow));
        const long long allowed = std::max({limit, pass_limit, last_limit}) + writable + recent * S + 4 * S;
        max_over_limit = std::max(max_over_limit, total - limit);
        max_recent_sectors = std::max(max_recent_sectors, recent);
        max_bound_use = std::max(max_bound_use, total * 1000 / std::max(allowed, 1LL));
        if (total > allowed) {
          Violation("directory %.1f MiB at pass %lld exceeds limit %.1f MiB + writable %.1f MiB + %lld recent "
                    "sectors",
                    MiB(total), passes, MiB(limit), MiB(writable), recent);
        }
      }
      last_limit = limit;
      if (Clock::now() >= next_report) {
        next_report += std::chrono::seconds(10);
        std::printf("  %3lld s: %lld operations, %.0f MiB verified, directory %.1f MiB (limit %.1f MiB), "
                    "%lld passes, %lld violations\n",
                    static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started)
                                               .count()),
                    counters.operations.load(), MiB(counters.bytes_verified.load()), MiB(total), MiB(limit),
                    seen_passes, counters.violations.load());
        std::fflush(stdout);
      }
    }
    for (std::thread& t : running) t.join();
    tuner.join();
    if (!queue.WaitIdle()) Violation("the worker queue did not drain");
  }
  const unsigned long long used_bytes = cache->GetUsedBytes();
  const auto release_started = Clock::now();
  ReleaseCache(path.c_str());
  const long long release_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - release_started).count();
  long long left = 0;
  long long left_writable = 0;
  MeasureDirectory(path, &left, &left_writable);
  if (left != 0) Violation("%lld bytes left in the cache directory after ReleaseCache", left);
  Cache_UnbindLogger();

  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  std::printf("korv_soak results (%.0f s, %d threads, origin throttled to %lld MiB/s):\n", elapsed, threads,
              EnvNumber("SOAK_RATE_MIB", 24));
  std::printf("  operations         %lld (reads ok %lld, failed %lld of which %lld without an injected fault; "
              "writes %lld; mode switches %lld; rehashes %lld; reopens %lld; settings %lld; limits %lld)\n",
              counters.operations.load(), counters.reads_ok.load(), counters.reads_failed.load(),
              counters.clean_reads_failed.load(), counters.writes.load(), counters.mode_switches.load(),
              counters.rehashes.load(), counters.reopens.load(), counters.settings_changes.load(),
              counters.limit_changes.load());
  std::printf("  faults injected    %lld (origin %lld, closed handles %lld)\n", counters.faults.load(),
              counters.origin_faults.load(), counters.closed_handles.load());
  std::printf("  bytes verified     %lld (%.0f MiB)\n", counters.bytes_verified.load(),
              MiB(counters.bytes_verified.load()));
  std::printf("  clearing passes    %lld checked\n", passes_checked);
  std::printf("  directory          max %.1f MiB (limit then %.1f MiB); max over the limit %.1f MiB at any "
              "time, %.1f MiB at a pass; max recent sectors %lld (%.1f MiB); max use of the bound %.1f%%\n",
              MiB(max_directory), MiB(max_directory_limit), MiB(std::max(0LL, max_over_limit_any)),
              MiB(std::max(0LL, max_over_limit)), max_recent_sectors,
              MiB(max_recent_sectors * S), static_cast<double>(max_bound_use) / 10.0);
  std::printf("  GetUsedBytes       %llu at the end\n", used_bytes);
  std::printf("  library errors     %lld error lines logged\n", log.Errors());
  std::printf("  ReleaseCache       %lld ms; %lld bytes left in the directory\n", release_ms, left);
  std::printf("  wrong bytes        %lld\n", counters.wrong_bytes.load());
  std::printf("  violations         %lld\n", counters.violations.load());
  const bool ok = counters.wrong_bytes.load() == 0 && counters.violations.load() == 0;
  std::printf("korv_soak: %s\n", ok ? "PASS" : "FAIL");
  return ok ? 0 : 1;
}
