#include "client/support/nginx_server.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <utility>

#include "support/file_helpers.h"

pid_t Spawn(const std::vector<std::string>& argv, int log_fd) {
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
  return status >= 0 ? status : (kill(pid, SIGKILL), WaitChild(pid, std::chrono::seconds(10)));
}

NginxServer::~NginxServer() {
  if (pid_ > 0) StopChild(pid_);
}

std::string NginxServer::ErrorLog() const { return FileContents(dir_ + "/error.log"); }

// nginx writes its pid file once it listens: a connection made after that
// reaches this nginx. The port comes from the pid; when another process
// holds it, nginx fails and the next try takes another. The configuration
// loads the dav-ext module itself: nginx run with -c reads no modules-enabled.
bool NginxServer::Start() {
  const std::string d = "\"" + dir_ + "/";
  mkdir(Root().c_str(), 0755);
  // Counted across instances, so that a second nginx of the test takes another port.
  static std::atomic<int> tries{0};
  for (int attempt = 0; attempt < 5; ++attempt) {
    port_ = 20000 + (getpid() * 31 + tries++ * 7919) % 40000;
    std::ofstream(dir_ + "/nginx.conf", std::ios::trunc)
        << (propfind_ ? "load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;\n" : "")
        << "daemon off; master_process off; worker_processes 1; pid " << d << "nginx.pid\";\n"
        << "events { worker_connections 256; }\nhttp {\n  default_type application/octet-stream; access_log off;\n"
        << "  client_body_temp_path " << d << "body\"; proxy_temp_path " << d << "proxy\";\n"
        << "  fastcgi_temp_path " << d << "fastcgi\"; uwsgi_temp_path " << d << "uwsgi\";\n"
        << "  scgi_temp_path " << d << "scgi\";\n  server {\n    listen 127.0.0.1:" << port_ << ";\n"
        << "    root \"" << Root() << "\"; autoindex on; autoindex_format json; client_max_body_size 0;\n"
        << "    dav_methods PUT DELETE MKCOL COPY MOVE;" << (propfind_ ? " dav_ext_methods PROPFIND OPTIONS;\n" : "\n")
        << "    create_full_put_path on;\n  }\n}\n";
    pid_ = Spawn({kProgram, "-p", dir_ + "/", "-e", dir_ + "/error.log", "-c", dir_ + "/nginx.conf"}, -1);
    const std::string pid_line = std::to_string(pid_) + "\n";
    for (int tick = 0; tick < 500 && pid_ > 0; ++tick) {
      if (FileContents(dir_ + "/nginx.pid") == pid_line) return true;
      if (WaitChild(pid_, std::chrono::milliseconds(10)) >= 0) pid_ = -1;
    }
    if (pid_ > 0) StopChild(std::exchange(pid_, -1));
  }
  return false;
}
