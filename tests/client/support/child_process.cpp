#include "client/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/file_helpers.h"
#include "support/temp_dir.h"

pid_t SpawnChild(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls until exec: the test process has threads.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    dup2(input, STDIN_FILENO);
    if (out_fd >= 0) dup2(out_fd, STDOUT_FILENO);
    if (err_fd >= 0) dup2(err_fd, STDERR_FILENO);
    // Sockets the test holds (a client connection, a scripted server) must
    // not live on in the child.
    close_range(3, ~0U, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  close(input);
  return pid;
}

int WaitChild(pid_t pid, std::chrono::milliseconds limit) {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd ended = {fd, POLLIN, 0};
  const bool done = fd >= 0 && poll(&ended, 1, static_cast<int>(limit.count())) == 1;
  if (fd >= 0) close(fd);
  int status = 0;
  if (!done || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int StopChild(pid_t pid) {
  kill(pid, SIGTERM);
  const int status = WaitChild(pid, std::chrono::seconds(10));
  if (status >= 0) return status;
  kill(pid, SIGKILL);
  return WaitChild(pid, std::chrono::seconds(10));
}

int RunProgram(const std::vector<std::string>& argv, std::string* out) {
  TempDir scratch;
  const int out_fd = open(scratch.File("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const pid_t pid = SpawnChild(argv, out_fd, -1);
  close(out_fd);
  const int status = pid < 0 ? -1 : WaitChild(pid, std::chrono::minutes(2));
  if (pid > 0 && status < 0) StopChild(pid);
  if (out != nullptr) *out = FileContents(scratch.File("out"));
  return status;
}

std::string ClientBinary(const std::string& name) { return std::string(KORV_BIN_DIR) + "/" + name; }
