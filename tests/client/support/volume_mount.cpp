#include "client/support/volume_mount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/support/child_process.h"
#include "support/file_helpers.h"

VolumeMount::VolumeMount(std::string origin, std::vector<std::string> extra)
    : origin_(std::move(origin)), extra_(std::move(extra)) {
  mkdir(mountpoint().c_str(), 0755);
}

VolumeMount::~VolumeMount() { Unmount(); }

bool VolumeMount::FuseUsable(std::string* reason) {
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    *reason = std::string("FUSE tests skipped: cannot open /dev/fuse: ") + strerror(errno);
    return false;
  }
  close(fd);
  if (getuid() != 0 && access("/usr/bin/fusermount3", X_OK) != 0) {
    *reason = "FUSE tests skipped: not root and no fusermount3";
    return false;
  }
  return true;
}

bool VolumeMount::Mounted() const {
  return FileContents("/proc/self/mountinfo").find(" " + mountpoint() + " ") != std::string::npos;
}

std::string VolumeMount::Messages() const { return FileContents(dir_.File("korvmount.log")); }

bool VolumeMount::Mount(std::string* reason, bool* not_permitted) {
  *not_permitted = false;
  std::vector<std::string> argv = {ClientBinary("korvmount"), origin_, mountpoint(), "--foreground",
                                   "--cache-dir", cache_dir()};
  argv.insert(argv.end(), extra_.begin(), extra_.end());
  const int log_fd = open(dir_.File("korvmount.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  pid_ = SpawnChild(argv, log_fd, log_fd);
  close(log_fd);
  for (int tick = 0; tick < 2000 && !Mounted(); ++tick) {
    if (WaitChild(pid_, std::chrono::milliseconds(10)) < 0) continue;
    pid_ = -1;
    *reason = "korvmount ended before mounting: " + Messages();
    *not_permitted = Messages().find("cannot mount on") != std::string::npos;
    return false;
  }
  *reason = "korvmount did not mount within 20 s: " + Messages();
  return Mounted();
}

int VolumeMount::Unmount() {
  if (pid_ < 0) return -1;
  if (Mounted() && umount2(mountpoint().c_str(), 0) != 0) {
    RunProgram({"/usr/bin/fusermount3", "-u", mountpoint()}, nullptr, nullptr);
  }
  int status = WaitChild(pid_, std::chrono::seconds(30));
  if (status < 0) {
    StopChild(pid_);
    umount2(mountpoint().c_str(), MNT_DETACH);
  }
  pid_ = -1;
  return status;
}
