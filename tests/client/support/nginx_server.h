// Child processes of a test and the nginx that end-to-end tests run: they die
// with the test (also when it is killed), and are started from the test's own
// thread, whose end ends them.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/file_helpers.h"

// Starts argv[0] with standard output and error to `log_fd` (inherited when
// negative) and no other descriptor of the test. Returns its pid, or -1.
inline pid_t Spawn(const std::vector<std::string>& argv, int log_fd) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls until exec: the test process has threads.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (log_fd >= 0) dup2(log_fd, STDOUT_FILENO), dup2(log_fd, STDERR_FILENO);
    close_range(3, ~0U, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// Waits up to `limit` for the child to end and reaps it. Returns its exit
// status (128 + the signal when killed), or -1 while it still runs.
inline int WaitChild(pid_t pid, std::chrono::milliseconds limit) {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd ended = {fd, POLLIN, 0};
  const bool done = fd >= 0 && poll(&ended, 1, static_cast<int>(limit.count())) == 1;
  if (fd >= 0) close(fd);
  int status = 0;
  if (!done || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// SIGTERM, then SIGKILL if it is still there after 10 s; returns as WaitChild.
inline int StopChild(pid_t pid) {
  kill(pid, SIGTERM);
  const int status = WaitChild(pid, std::chrono::seconds(10));
  return status >= 0 ? status : (kill(pid, SIGKILL), WaitChild(pid, std::chrono::seconds(10)));
}

// nginx on a loopback port serving `dir`/root: JSON autoindex, WebDAV (PUT
// DELETE MKCOL COPY MOVE, and with `propfind` PROPFIND from the dav-ext
// module), its configuration, logs and temporary files in `dir`.
struct NginxServer {
  static constexpr const char* kProgram = "/usr/sbin/nginx";
  const std::string dir;
  const bool propfind = true;
  pid_t pid = -1;
  int port = 0;

  ~NginxServer() { if (pid > 0) StopChild(pid); }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port); }
  std::string Root() const { return dir + "/root"; }
  std::string ErrorLog() const { return FileContents(dir + "/error.log"); }

  // False when nginx did not come up. It writes its pid file once it listens:
  // a connection made after that reaches this nginx. The port comes from the
  // pid and a count of tries, so that a second nginx takes another; when
  // another process holds it, nginx fails and the next try takes another.
  // Run with -c, nginx reads no modules-enabled: the dav-ext module is loaded here.
  bool Start() {
    static std::atomic<int> tries{0};
    const std::string d = "\"" + dir + "/";
    mkdir(Root().c_str(), 0755);
    for (int attempt = 0; attempt < 5; ++attempt) {
      port = 20000 + (getpid() * 31 + tries++ * 7919) % 40000;
      std::ofstream(dir + "/nginx.conf", std::ios::trunc)
          << (propfind ? "load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;\n" : "")
          << "daemon off; master_process off; worker_processes 1; pid " << d << "nginx.pid\";\n"
          << "events { worker_connections 256; }\nhttp {\n  default_type application/octet-stream; access_log off;\n"
          << "  client_body_temp_path " << d << "body\"; proxy_temp_path " << d << "proxy\"; fastcgi_temp_path "
          << d << "fastcgi\"; uwsgi_temp_path " << d << "uwsgi\"; scgi_temp_path " << d << "scgi\";\n"
          << "  server {\n    listen 127.0.0.1:" << port << ";\n"
          << "    root \"" << Root() << "\"; autoindex on; autoindex_format json; client_max_body_size 0;\n"
          << "    dav_methods PUT DELETE MKCOL COPY MOVE; create_full_put_path on;\n"
          << (propfind ? "    dav_ext_methods PROPFIND OPTIONS;\n" : "") << "  }\n}\n";
      pid = Spawn({kProgram, "-p", dir + "/", "-e", dir + "/error.log", "-c", dir + "/nginx.conf"}, -1);
      const std::string pid_line = std::to_string(pid) + "\n";
      for (int tick = 0; tick < 500 && pid > 0; ++tick) {
        if (FileContents(dir + "/nginx.pid") == pid_line) return true;
        if (WaitChild(pid, std::chrono::milliseconds(10)) >= 0) pid = -1;
      }
      if (pid > 0) StopChild(std::exchange(pid, -1));
    }
    return false;
  }
};
