#include "faults/fault_support.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace faults {

namespace {

// A test program that dies half way (a crash, the harness's time-out) never
// unmounts its tmpfs. With a mount namespace of its own the mounts go with
// the process. Entered before main, while the process has one thread, so
// that every later thread shares it; without the privilege nothing changes
// (and nothing is mounted either).
const bool kOwnMountNamespace = [] {
  if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) return false;
  // Mounts made here must not show up in the parent namespace.
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}();

}  // namespace

ReadOutcome ReadAndCheck(ICacheIO& io, FakeOrigin& origin, long long offset, size_t size, long long timeout_ms,
                         std::shared_ptr<_FS_HANDLE> handle, bool whole_file) {
  // A guard byte past the request shows a copy that overruns the buffer's
  // requested length even where the sanitizer cannot.
  std::vector<char> buffer(size + 1, '\x5a');
  _READDATA rd{buffer.data(), offset, size, 0, handle ? std::move(handle) : OpenHandle(), origin.size(), &origin,
               timeout_ms, whole_file};
  ReadOutcome outcome;
  outcome.status = io.Read(&rd);
  outcome.transferred = rd.transferred;
  if (outcome.status != kOk) return outcome;
  outcome.overrun = rd.transferred > size || buffer[size] != '\x5a';
  const long long checked = static_cast<long long>(std::min<unsigned long long>(rd.transferred, size));
  outcome.mismatch = FakeOrigin::FirstMismatch(buffer.data(), offset, checked);
  return outcome;
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto give_up = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < give_up) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done();
}

Background::Background(std::function<void()> work)
    : thread_([this, work = std::move(work)] {
        work();
        done_.store(true);
      }) {}

Background::~Background() { thread_.join(); }

bool Background::WaitDone(std::chrono::milliseconds limit) const {
  return WaitFor([this] { return Done(); }, limit);
}

Watchdog::Watchdog(std::string what, std::chrono::seconds limit)
    : thread_([this, what = std::move(what), limit] {
        std::unique_lock<std::mutex> guard(lock_);
        if (!changed_.wait_for(guard, limit, [this] { return disarmed_; })) {
          std::fprintf(stderr, "watchdog: %s did not finish within %lld s (deadlock?)\n", what.c_str(),
                       static_cast<long long>(limit.count()));
          std::fflush(stderr);
          std::abort();
        }
      }) {}

Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    disarmed_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

SmallFilesystem::SmallFilesystem(std::string directory, long long bytes)
    : directory_(std::move(directory)), filler_(directory_ + "/filler") {
  if (geteuid() != 0) {
    why_ = "mounting a tmpfs needs root";
    return;
  }
  if (!kOwnMountNamespace) {
    why_ = "no mount namespace of its own (unshare refused): a crash would leave the tmpfs mounted";
    return;
  }
  const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
  if (mount("tmpfs", directory_.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    why_ = std::string("mounting a tmpfs was refused: ") + std::strerror(errno);
    return;
  }
  mounted_ = true;
}

SmallFilesystem::~SmallFilesystem() {
  if (!mounted_) return;
  // Something may still hold a file open there (a test that failed half way):
  // detach then, so the directory can go.
  if (umount(directory_.c_str()) != 0) umount2(directory_.c_str(), MNT_DETACH);
}

long long SmallFilesystem::FreeBytes() const {
  struct statvfs st;
  if (statvfs(directory_.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.f_bavail) * static_cast<long long>(st.f_frsize);
}

bool SmallFilesystem::FillLeaving(long long leave) {
  const long long take = FreeBytes() - leave;
  if (take < 0) return false;
  int fd = open(filler_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (fd < 0) return false;
  std::vector<char> chunk(65536, 'f');
  long long left = take;
  bool ok = true;
  while (left > 0 && ok) {
    ssize_t put = write(fd, chunk.data(), static_cast<size_t>(std::min<long long>(left, 65536)));
    ok = put > 0;
    if (ok) left -= put;
  }
  close(fd);
  return ok && FreeBytes() <= leave;
}

void SmallFilesystem::Unfill() { unlink(filler_.c_str()); }

std::vector<std::string> SectorCacheFiles(const std::string& directory) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".cache" && entry.is_regular_file()) files.push_back(entry.path().string());
  }
  return files;
}

long long FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

}  // namespace faults
