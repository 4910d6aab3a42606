#include "client/support/nginx_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "client/support/child_process.h"
#include "support/file_helpers.h"

namespace {

const char kNginx[] = "/usr/sbin/nginx";

// A socket bound to (or connected to) a loopback port; -1 when that fails.
int LoopbackSocket(int port, bool connect_to_it) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (fd >= 0 && (connect_to_it ? connect(fd, raw, sizeof(address)) : bind(fd, raw, sizeof(address))) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

// A port nobody listens on right now. Another process may take it before
// nginx binds it; Start() then tries another.
int FreePort() {
  const int fd = LoopbackSocket(0, false);
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  const bool named = fd >= 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  if (fd >= 0) close(fd);
  return named ? ntohs(address.sin_port) : 0;
}

}  // namespace

NginxServer::NginxServer(std::string server_extra) : server_extra_(std::move(server_extra)) {
  mkdir(Root().c_str(), 0755);
}

NginxServer::~NginxServer() { Stop(); }

bool NginxServer::Installed(std::string* reason) {
  if (access(kNginx, X_OK) == 0) return true;
  *reason = std::string(kNginx) + " is not installed (scripts/install-deps.sh installs it)";
  return false;
}

std::string NginxServer::Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void NginxServer::WriteConfig() const {
  const std::string d = "\"" + dir_.path() + "/";
  std::ofstream(dir_.File("nginx.conf"), std::ios::trunc)
      << "daemon off; master_process off; worker_processes 1;\n"
      << "pid " << d << "nginx.pid\"; error_log " << d << "error.log\";\n"
      << "events { worker_connections 256; }\n"
      << "http {\n  default_type application/octet-stream;\n"
      << "  log_format korv \"$request_method\\t$uri\\t$http_range\\t$connection\";\n"
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
    const int log_fd = open(dir_.File("output.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid_ = SpawnChild({kNginx, "-p", dir_.path() + "/", "-e", dir_.File("error.log"), "-c", dir_.File("nginx.conf")},
                      log_fd, log_fd);
    close(log_fd);
    // nginx writes its pid file after it has bound the port, so a connection
    // accepted after that reaches this nginx and not some other process.
    const std::string pid_line = std::to_string(pid_) + "\n";
    bool exited = false;
    for (int tick = 0; tick < 500 && !exited; ++tick) {
      exited = WaitChild(pid_, std::chrono::milliseconds(10)) >= 0;
      const int probe = FileContents(dir_.File("nginx.pid")) == pid_line ? LoopbackSocket(port_, true) : -1;
      if (probe >= 0) {
        close(probe);
        return true;
      }
    }
    if (exited) pid_ = -1;
    Stop();
  }
  *reason = "nginx did not start: " + FileContents(dir_.File("output.log")) + FileContents(dir_.File("error.log"));
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

std::vector<NginxServer::Request> NginxServer::Requests() const {
  std::vector<Request> requests;
  std::istringstream log(FileContents(dir_.File("access.log")));
  for (std::string line; std::getline(log, line);) {
    std::istringstream fields(line);
    Request request;
    std::string connection;
    if (std::getline(fields, request.method, '\t') && std::getline(fields, request.uri, '\t') &&
        std::getline(fields, request.range, '\t') && std::getline(fields, connection)) {
      request.connection = atoll(connection.c_str());
      requests.push_back(request);
    }
  }
  return requests;
}

bool NginxServer::WaitForRequests(size_t count) const {
  for (int tick = 0; tick < 1000 && Requests().size() < count; ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return Requests().size() >= count;
}
