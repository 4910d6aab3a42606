#include "common/platform.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#include <sys/param.h>
#include <sys/mount.h>
#else
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#endif

bool ExecutablePath(std::string* out) {
  char buffer[kMaxExecutablePath];
#ifdef __APPLE__
  uint32_t size = sizeof(buffer);
  // Fails (returns -1) rather than truncating when the buffer is too small.
  if (_NSGetExecutablePath(buffer, &size) != 0) return false;
  *out = buffer;
#else
  // readlink neither terminates nor reports truncation: a result that fills
  // the buffer may have been cut short.
  ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer));
  if (length <= 0 || static_cast<size_t>(length) >= sizeof(buffer)) return false;
  out->assign(buffer, static_cast<size_t>(length));
#endif
  return true;
}

std::string RandomUUID() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];  // 36 characters and the NUL uuid_unparse writes
  uuid_unparse(uuid, text);
  return std::string(text);
}

bool CurrentUserAccount(UserAccount* out) {
  // getpwuid_r rather than getpwuid: the latter's static record would race
  // with any other thread of the client's process looking up users.
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 16384);
  struct passwd entry;
  struct passwd* found = nullptr;
  for (;;) {
    int error = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr) return false;
    break;
  }
  out->name = found->pw_name != nullptr ? found->pw_name : "";
  out->home = found->pw_dir != nullptr ? found->pw_dir : "";
  return true;
}

bool VolumeFreeBytes(const std::string& path, long long* out) {
  struct statfs info;
  if (statfs(path.c_str(), &info) != 0) return false;
  // f_bfree, not f_bavail: the cache may count on the superuser's reserve
  // too. Field widths differ between the systems, so multiply unsigned.
  unsigned long long bytes = static_cast<unsigned long long>(info.f_bsize) *
                             static_cast<unsigned long long>(info.f_bfree);
  *out = bytes > static_cast<unsigned long long>(LLONG_MAX) ? LLONG_MAX
                                                             : static_cast<long long>(bytes);
  return true;
}

namespace {

// The descriptor of a directory met on a walk: the root is borrowed, every
// directory below it owned.
class WalkDirectory {
 public:
  explicit WalkDirectory(int root_fd) : fd_(root_fd) {}
  ~WalkDirectory() { Drop(); }
  WalkDirectory(const WalkDirectory&) = delete;
  WalkDirectory& operator=(const WalkDirectory&) = delete;
  int fd() const { return fd_; }
  bool Enter(const std::string& name) {
    const int next = openat(fd_, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) return false;
    Drop();
    fd_ = next;
    owned_ = true;
    return true;
  }

 private:
  void Drop() {
    if (!owned_) return;
    const int saved = errno;
    close(fd_);
    errno = saved;
  }
  int fd_;
  bool owned_ = false;
};

}  // namespace

int OpenBeneathByWalk(int root_fd, const std::string& path, int flags, unsigned mode) {
  if (!path.empty() && path[0] == '/') {
    errno = EXDEV;
    return -1;
  }
  std::vector<std::string> names;
  for (std::string::size_type start = 0; start <= path.size();) {
    std::string::size_type slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    const std::string name = path.substr(start, slash - start);
    if (name == "..") {
      errno = EXDEV;
      return -1;
    }
    if (!name.empty() && name != ".") names.push_back(name);
    start = slash + 1;
  }
  if (names.empty()) names.push_back(".");
  WalkDirectory directory(root_fd);
  for (size_t i = 0; i + 1 < names.size(); ++i) {
    if (!directory.Enter(names[i])) return -1;
  }
  return openat(directory.fd(), names.back().c_str(), flags | O_NOFOLLOW | O_CLOEXEC, static_cast<mode_t>(mode));
}

int OpenBeneath(int root_fd, const std::string& path, int flags, unsigned mode) {
#if defined(__linux__) && defined(SYS_openat2)
  // Kernels before 5.6, and sandboxes that filter the call, answer ENOSYS.
  static std::atomic<bool> missing{false};
  if (!missing.load(std::memory_order_relaxed)) {
    struct open_how how;
    std::memset(&how, 0, sizeof(how));
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const char* relative = path.empty() ? "." : path.c_str();
    long fd;
    do {
      fd = syscall(SYS_openat2, root_fd, relative, &how, sizeof(how));
    } while (fd < 0 && (errno == EINTR || errno == EAGAIN));
    if (fd >= 0 || errno != ENOSYS) return static_cast<int>(fd);
    missing.store(true, std::memory_order_relaxed);
  }
#endif
  return OpenBeneathByWalk(root_fd, path, flags, mode);
}

int OpenParentBeneath(int root_fd, const std::string& path, std::string* name) {
  const std::string::size_type slash = path.rfind('/');
  *name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name->empty() || *name == "." || *name == "..") {
    errno = EINVAL;
    return -1;
  }
  return OpenBeneath(root_fd, slash == std::string::npos ? "" : path.substr(0, slash), O_RDONLY | O_DIRECTORY);
}

bool StatBeneath(int root_fd, const std::string& path, struct stat* st) {
#ifdef O_PATH
  const int fd = OpenBeneath(root_fd, path, O_PATH);
#else
  // Without O_PATH the file is opened; O_NONBLOCK keeps a FIFO from waiting for a writer.
  const int fd = OpenBeneath(root_fd, path, O_RDONLY | O_NONBLOCK);
#endif
  if (fd < 0) return false;
  const bool ok = fstat(fd, st) == 0;
  const int saved = errno;
  close(fd);
  errno = saved;
  return ok;
}

bool VolumeSpace(const std::string& path, long long* used, long long* available) {
  struct statvfs info;
  if (statvfs(path.c_str(), &info) != 0) return false;
  const unsigned long long unit = info.f_frsize != 0 ? info.f_frsize : info.f_bsize;
  const unsigned long long blocks = static_cast<unsigned long long>(info.f_blocks);
  const unsigned long long free_blocks = static_cast<unsigned long long>(info.f_bfree);
  *used = static_cast<long long>((blocks - std::min(blocks, free_blocks)) * unit);
  *available = static_cast<long long>(static_cast<unsigned long long>(info.f_bavail) * unit);
  return true;
}

bool SyncToDisk(int fd) {
#ifdef __APPLE__
  if (fcntl(fd, F_FULLFSYNC) == 0) return true;
#endif
  return fsync(fd) == 0;
}

bool SyncDirectory(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = SyncToDisk(fd);
  const int saved = errno;
  close(fd);
  errno = saved;
  return synced;
}
