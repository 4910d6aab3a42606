// Child processes of a test and the nginx that end-to-end tests run: they die
// with the test (also when it is killed), and are started from the test's own
// thread, whose end ends them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// Starts argv[0] with standard output and error to `log_fd` (inherited when
// negative) and no other descriptor of the test. Returns its pid, or -1.
pid_t Spawn(const std::vector<std::string>& argv, int log_fd);

// Waits up to `limit` for the child to end and reaps it. Returns its exit
// status (128 + the signal when killed), or -1 while it still runs.
int WaitChild(pid_t pid, std::chrono::milliseconds limit);

// SIGTERM, then SIGKILL if it is still there after 10 s; returns as WaitChild.
int StopChild(pid_t pid);

// nginx on a loopback port serving `dir`/root: JSON autoindex, WebDAV (PUT
// DELETE MKCOL COPY MOVE, and with `propfind` PROPFIND from the dav-ext
// module), its configuration, logs and temporary files in `dir`.
class NginxServer {
 public:
  static constexpr const char* kProgram = "/usr/sbin/nginx";
  explicit NginxServer(std::string dir, bool propfind = true) : dir_(std::move(dir)), propfind_(propfind) {}
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  // False when nginx did not come up (its error.log says why).
  bool Start();
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string Root() const { return dir_ + "/root"; }
  std::string ErrorLog() const;

 private:
  const std::string dir_;
  const bool propfind_;
  pid_t pid_ = -1;
  int port_ = 0;
};
