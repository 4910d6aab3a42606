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
  ~VolumeMount();
  VolumeMount(const VolumeMount&) = delete;
  VolumeMount& operator=(const VolumeMount&) = delete;

  // False, with the reason, where this machine does not let a test mount a
  // FUSE file system (no /dev/fuse, or mounting not permitted).
  static bool FuseUsable(std::string* reason);

  // Starts korvmount and waits until the volume answers. On failure returns
  // false with korvmount's messages in `reason`; `*not_permitted` tells a
  // refused mount (skip) from a client failure.
  bool Mount(std::string* reason, bool* not_permitted = nullptr);
  // Unmounts and waits for korvmount to end. Returns its exit status, or -1.
  int Unmount();

  std::string Path(const std::string& rel) const { return mountpoint_ + "/" + rel; }
  const std::string& mountpoint() const { return mountpoint_; }
  const std::string& cache_dir() const { return cache_dir_; }
  // What korvmount wrote to standard error so far.
  std::string Messages() const;

 private:
  bool Mounted() const;

  TempDir dir_;
  std::string origin_;
  std::vector<std::string> extra_;
  std::string mountpoint_;
  std::string cache_dir_;
  std::string log_;
  pid_t pid_ = -1;
};

// The directory of korvmount and korvcat.
std::string ClientBinary(const std::string& name);

// Runs a program to completion with stdout into `out` and stderr into `err`
// (either may be null). Returns its exit status, or -1.
int RunProgram(const std::vector<std::string>& argv, std::string* out, std::string* err);

// Bytes on disk under `dir` (allocated blocks, so sparse files count as held).
long long DiskUsage(const std::string& dir);
