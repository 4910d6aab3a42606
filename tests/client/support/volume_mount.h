// A korvmount of one origin for one test, on a fresh mount point with a
// fresh cache directory. korvmount runs in the foreground as a child of the
// test and is unmounted and reaped by the destructor, also when a test fails.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

class VolumeMount {
 public:
  // `extra` options are appended to korvmount's command line.
  VolumeMount(std::string origin, std::vector<std::string> extra = {});
  ~VolumeMount();  // Unmount()s
  VolumeMount(const VolumeMount&) = delete;
  VolumeMount& operator=(const VolumeMount&) = delete;

  // False, with the reason, where this machine does not let a test mount a
  // FUSE file system (no /dev/fuse, or mounting not permitted).
  static bool FuseUsable(std::string* reason);

  // Starts korvmount and waits until the volume is mounted. On failure
  // returns false with korvmount's messages in `reason`; `*not_permitted`
  // tells a refused mount (skip) from a client failure.
  bool Mount(std::string* reason, bool* not_permitted);
  // Unmounts and waits for korvmount to end. Returns its exit status, or -1.
  int Unmount();

  std::string Path(const std::string& rel) const { return mountpoint() + "/" + rel; }
  std::string mountpoint() const { return dir_.File("mnt"); }
  std::string cache_dir() const { return dir_.File("cache"); }
  // What korvmount wrote so far, for failure messages.
  std::string Messages() const;

 private:
  bool Mounted() const;

  TempDir dir_;
  const std::string origin_;
  const std::vector<std::string> extra_;
  pid_t pid_ = -1;
};
