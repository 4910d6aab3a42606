#include "client/support/nginx_server.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "client/support/child_process.h"
#include "support/file_helpers.h"

namespace {

const char kNginx[] = "/usr/sbin/nginx";

// A loopback port nobody listens on right now. Another process may take it
// before nginx binds it; Start() then tries another.
int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  const bool named = bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(fd);
  return named ? ntohs(address.sin_port) : 0;
}

}  // namespace

NginxServer::NginxServer(std::string server_extra) : server_extra_(std::move(server_extra)) {
  mkdir(Root().c_str(), 0755);
}

bool NginxServer::Installed(std::string* reason) {
  if (access(kNginx, X_OK) == 0) return true;
  *reason = std::string(kNginx) + " is not installed (scripts/install-deps.sh installs it)";
  return false;
}

void NginxServer::WriteConfig() const {
  const std::string d = "\"" + dir_.path() + "/";
  std::ofstream(dir_.File("nginx.conf"), std::ios::trunc)
      << "daemon off; master_process off; worker_processes 1;\n"
      << "pid " << d << "nginx.pid\"; error_log " << d << "error.log\";\n"
      << "events { worker_connections 256; }\n"
      << "http {\n  default_type application/octet-stream;\n"
      << "  log_format korv \"$http_range $connection\";\n"
      << "  access_log " << d << "access.log\" korv;\n"
      << "  client_body_temp_path " << d << "body\"; proxy_temp_path " << d << "proxy\";\n"
      << "  fastcgi_temp_path " << d << "fastcgi\"; uwsgi_temp_path " << d << "uwsgi\";\n"
      << "  scgi_temp_path " << d << "scgi\";\n"
      << "  server {\n    listen 127.0.0.1:" << port_ << ";\n    root " << d << "root\";\n"
      << "    autoindex on; autoindex_format json; client_max_body_size 0;\n"
      << "    dav_methods PUT DELETE MKCOL; create_full_put_path on;\n"
      << "    " << server_extra_ << "\n  }\n}\n";
}

bool NginxServer::Start(std::string* reason) {
  if (pid_ > 0) return true;
  if (!Installed(reason)) return false;
  // A restart keeps its port, so that clients find the server again; nginx
  // itself retries a busy port for a few seconds before it gives up.
  const bool keep_port = port_ != 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (!keep_port) port_ = FreePort();
    WriteConfig();
    unlink(dir_.File("nginx.pid").c_str());
    pid_ = SpawnChild({kNginx, "-p", dir_.path() + "/", "-e", dir_.File("error.log"), "-c", dir_.File("nginx.conf")},
                      -1, -1);
    // nginx writes its pid file once it listens on the port: a connection
    // made after that reaches this nginx and not some other process.
    const std::string pid_line = std::to_string(pid_) + "\n";
    for (int tick = 0; tick < 500 && pid_ > 0; ++tick) {
      if (FileContents(dir_.File("nginx.pid")) == pid_line) return true;
      if (WaitChild(pid_, std::chrono::milliseconds(10)) >= 0) pid_ = -1;
    }
    Stop();
  }
  *reason = "nginx did not start: " + FileContents(dir_.File("error.log"));
  return false;
}

void NginxServer::Stop() {
  if (pid_ > 0) StopChild(pid_);
  pid_ = -1;
}

void NginxServer::WriteFile(const std::string& rel_path, const std::string& bytes) const {
  const std::filesystem::path path = Root() + "/" + rel_path;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  const timeval times[2] = {{kFileMtime, 0}, {kFileMtime, 0}};
  utimes(path.c_str(), times);
}

std::string NginxServer::ReadFile(const std::string& rel_path) const { return FileContents(Root() + "/" + rel_path); }

std::vector<NginxServer::Request> NginxServer::Requests(size_t count) const {
  std::vector<Request> requests;
  for (int tick = 0; tick < 1000 && requests.size() < count; ++tick) {
    if (tick > 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    requests.clear();
    std::istringstream log(FileContents(dir_.File("access.log")));
    for (Request request; log >> request.range >> request.connection;) requests.push_back(request);
  }
  return requests;
}
