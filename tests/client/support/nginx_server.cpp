#include "client/support/nginx_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

const char kNginx[] = "/usr/sbin/nginx";

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  remove(path);
  return 0;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void MakeParents(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A port nobody listens on right now. Another process may take it before
// nginx binds it; Start() then tries another.
int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof(address);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

bool Accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address = Loopback(port);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return ok;
}

}  // namespace

NginxServer::NginxServer(std::string server_extra) : server_extra_(std::move(server_extra)) {
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                        "/korv-nginx-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) return;
  dir_ = pattern;
  root_ = dir_ + "/root";
  for (const char* sub : {"/root", "/logs", "/conf", "/tmp"}) mkdir((dir_ + sub).c_str(), 0755);
}

NginxServer::~NginxServer() {
  Stop();
  if (!dir_.empty()) nftw(dir_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool NginxServer::Installed(std::string* reason) {
  if (access(kNginx, X_OK) == 0) return true;
  *reason = std::string(kNginx) + " is not installed (scripts/install-deps.sh installs it)";
  return false;
}

std::string NginxServer::Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

bool NginxServer::WriteConfig(std::string* reason) const {
  const std::string d = "\"" + dir_;
  std::ostringstream conf;
  conf << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
       << "pid " << d << "/nginx.pid\";\n"
       << "error_log " << d << "/logs/error.log\";\n"
       << "events { worker_connections 256; }\n"
       << "http {\n"
       << "  default_type application/octet-stream;\n"
       << "  log_format korv \"$request_method\\t$uri\\t$http_range\\t$status\\t"
       << "$body_bytes_sent\\t$connection\";\n"
       << "  access_log " << d << "/logs/access.log\" korv;\n"
       << "  client_body_temp_path " << d << "/tmp/body\";\n"
       << "  proxy_temp_path " << d << "/tmp/proxy\";\n"
       << "  fastcgi_temp_path " << d << "/tmp/fastcgi\";\n"
       << "  uwsgi_temp_path " << d << "/tmp/uwsgi\";\n"
       << "  scgi_temp_path " << d << "/tmp/scgi\";\n"
       << "  server {\n"
       << "    listen 127.0.0.1:" << port_ << ";\n"
       << "    root " << d << "/root\";\n"
       << "    autoindex on;\n    autoindex_format json;\n"
       << "    dav_methods PUT DELETE MKCOL;\n    create_full_put_path on;\n"
       << "    client_max_body_size 0;\n"
       << "    " << server_extra_ << "\n"
       << "  }\n}\n";
  std::ofstream out(dir_ + "/conf/nginx.conf", std::ios::trunc);
  out << conf.str();
  out.close();
  if (!out) {
    *reason = "cannot write " + dir_ + "/conf/nginx.conf";
    return false;
  }
  return true;
}

bool NginxServer::SpawnOnce(std::string* reason, bool* port_taken) {
  *port_taken = false;
  const std::string pid_file = dir_ + "/nginx.pid";
  const std::string error_log = dir_ + "/logs/error.log";
  const std::string output_log = dir_ + "/logs/output.log";
  unlink(pid_file.c_str());
  const off_t error_log_start = [&] {
    struct stat st;
    return stat(error_log.c_str(), &st) == 0 ? st.st_size : 0;
  }();

  std::string prefix = dir_ + "/";
  std::string conf = dir_ + "/conf/nginx.conf";
  std::vector<std::string> args = {kNginx, "-p", prefix, "-e", error_log, "-c", conf};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int output = open(output_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (input < 0 || output < 0) {
    if (input >= 0) close(input);
    if (output >= 0) close(output);
    *reason = "cannot open /dev/null or " + output_log;
    return false;
  }
  const pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls until exec: the test process has threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(input, 0);
    dup2(output, 1);
    dup2(output, 2);
    // Sockets the test holds (a client connection, a fake server) must not
    // live on in nginx.
    if (close_range(3, ~0U, 0) != 0) {
      for (int fd = 3; fd < 4096; ++fd) close(fd);
    }
    execv(kNginx, argv.data());
    _exit(127);
  }
  close(input);
  close(output);
  if (pid < 0) {
    *reason = "fork failed";
    return false;
  }
  pid_ = pid;

  // nginx writes its pid file after it has bound the port, so a connection
  // accepted after that reaches this nginx and not some other process.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const std::string pid_text = std::to_string(pid);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      pid_ = -1;
      std::string complaint = Slurp(output_log);
      std::string logged = Slurp(error_log);
      if (static_cast<off_t>(logged.size()) >= error_log_start) complaint += logged.substr(error_log_start);
      *port_taken = complaint.find("Address already in use") != std::string::npos;
      *reason = "nginx exited at start: " + complaint;
      return false;
    }
    std::string written = Slurp(pid_file);
    if (written.compare(0, pid_text.size(), pid_text) == 0 && Accepts(port_)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Stop();
  *reason = "nginx did not accept connections on port " + std::to_string(port_) + " within 5 s";
  return false;
}

bool NginxServer::Start(std::string* reason) {
  std::string ignored;
  if (reason == nullptr) reason = &ignored;
  if (pid_ > 0) return true;
  if (dir_.empty()) {
    *reason = "cannot create a temporary directory for nginx";
    return false;
  }
  if (!Installed(reason)) return false;
  // A restart keeps its port, so that clients find the server again; nginx
  // itself retries a busy port for a few seconds before it gives up.
  const bool keep_port = port_ != 0;
  for (int attempt = 0; attempt < (keep_port ? 1 : 5); ++attempt) {
    if (!keep_port) port_ = FreePort();
    if (port_ == 0) {
      *reason = "no free loopback port";
      return false;
    }
    bool port_taken = false;
    if (!WriteConfig(reason)) return false;
    if (SpawnOnce(reason, &port_taken)) return true;
    if (!port_taken) return false;
  }
  return false;
}

void NginxServer::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  pid_ = -1;
}

void NginxServer::WriteFile(const std::string& rel_path, const std::string& bytes) const {
  const std::string path = root_ + "/" + rel_path;
  MakeParents(path);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void NginxServer::SetMtime(const std::string& rel_path, long long seconds) const {
  struct timeval times[2] = {};
  times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(seconds);
  utimes((root_ + "/" + rel_path).c_str(), times);
}

bool NginxServer::ReadFile(const std::string& rel_path, std::string* bytes) const {
  std::ifstream in(root_ + "/" + rel_path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  *bytes = text.str();
  return true;
}

std::vector<std::string> NginxServer::AccessLog() const {
  std::vector<std::string> lines;
  std::istringstream log(Slurp(dir_ + "/logs/access.log"));
  for (std::string line; std::getline(log, line);) lines.push_back(line);
  return lines;
}

std::vector<NginxServer::Request> NginxServer::Requests() const {
  std::vector<Request> requests;
  for (const std::string& line : AccessLog()) {
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    if (fields.size() != 6) continue;
    Request request;
    request.method = fields[0];
    request.uri = fields[1];
    request.range = fields[2];
    request.status = atoi(fields[3].c_str());
    request.body_bytes = atoll(fields[4].c_str());
    request.connection = atoll(fields[5].c_str());
    requests.push_back(request);
  }
  return requests;
}

bool NginxServer::WaitForRequests(size_t count) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (Requests().size() < count) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

int NginxServer::CountRequests(const std::string& method, const std::string& uri) const {
  int count = 0;
  for (const Request& request : Requests()) {
    if (request.method == method && (uri.empty() || request.uri == uri)) ++count;
  }
  return count;
}
