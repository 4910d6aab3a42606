#include "client/support/volume_mount.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream all;
  all << in.rdbuf();
  return all.str();
}

// Waits up to `limit` for `pid`; returns its exit status, or -1 if it lives.
int WaitFor(pid_t pid, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (done < 0) return -1;
    if (std::chrono::steady_clock::now() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

pid_t Spawn(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  // A test that dies takes its programs with it.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  if (out_fd >= 0) dup2(out_fd, STDOUT_FILENO);
  if (err_fd >= 0) dup2(err_fd, STDERR_FILENO);
  execv(args[0], args.data());
  _exit(127);
}

}  // namespace

std::string ClientBinary(const std::string& name) { return std::string(KORV_BIN_DIR) + "/" + name; }

int RunProgram(const std::vector<std::string>& argv, std::string* out, std::string* err) {
  TempDir scratch;
  const std::string out_path = scratch.File("out"), err_path = scratch.File("err");
  const int out_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int err_fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const pid_t pid = Spawn(argv, out_fd, err_fd);
  close(out_fd);
  close(err_fd);
  if (pid < 0) return -1;
  int status = WaitFor(pid, std::chrono::minutes(2));
  if (status < 0) {
    kill(pid, SIGKILL);
    WaitFor(pid, std::chrono::seconds(5));
  }
  if (out != nullptr) *out = ReadText(out_path);
  if (err != nullptr) *err = ReadText(err_path);
  return status;
}

long long DiskUsage(const std::string& dir) {
  long long total = 0;
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    struct stat st;
    if (lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) total += static_cast<long long>(st.st_blocks) * 512;
  }
  return total;
}

VolumeMount::VolumeMount(std::string origin, std::vector<std::string> extra)
    : origin_(std::move(origin)), extra_(std::move(extra)) {
  mountpoint_ = dir_.File("mnt");
  cache_dir_ = dir_.File("cache");
  log_ = dir_.File("korvmount.log");
  mkdir(mountpoint_.c_str(), 0755);
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
  const std::string mounts = ReadText("/proc/self/mountinfo");
  return mounts.find(" " + mountpoint_ + " ") != std::string::npos;
}

bool VolumeMount::Mount(std::string* reason, bool* not_permitted) {
  if (not_permitted != nullptr) *not_permitted = false;
  std::vector<std::string> argv = {ClientBinary("korvmount"), origin_, mountpoint_, "--foreground",
                                   "--cache-dir", cache_dir_};
  argv.insert(argv.end(), extra_.begin(), extra_.end());
  const int log_fd = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid_ = Spawn(argv, log_fd, log_fd);
  close(log_fd);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    if (Mounted()) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      *reason = "korvmount ended before mounting: " + Messages();
      if (not_permitted != nullptr) *not_permitted = Messages().find("cannot mount on") != std::string::npos;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  *reason = "korvmount did not mount within 20 s: " + Messages();
  return false;
}

int VolumeMount::Unmount() {
  if (pid_ < 0) return -1;
  if (Mounted() && umount2(mountpoint_.c_str(), 0) != 0) {
    std::string ignored;
    RunProgram({"/usr/bin/fusermount3", "-u", mountpoint_}, nullptr, &ignored);
  }
  int status = WaitFor(pid_, std::chrono::seconds(30));
  if (status < 0) {
    kill(pid_, SIGKILL);
    WaitFor(pid_, std::chrono::seconds(5));
    umount2(mountpoint_.c_str(), MNT_DETACH);
  }
  pid_ = -1;
  return status;
}

std::string VolumeMount::Messages() const { return ReadText(log_); }
