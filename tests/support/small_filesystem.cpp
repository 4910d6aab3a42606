#include "support/small_filesystem.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>

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
  const int fd = open(filler_.c_str(), O_WRONLY | O_CREAT, 0600);
  if (take < 0 || fd < 0) return false;
  const bool ok = posix_fallocate(fd, 0, static_cast<off_t>(take)) == 0;
  close(fd);
  return ok && FreeBytes() <= leave;
}

void SmallFilesystem::Unfill() { unlink(filler_.c_str()); }
