// A real nginx for one test, on a free loopback port, serving a fresh
// temporary directory with JSON autoindex listings and WebDAV PUT.
//
//   NginxServer nginx;
//   std::string why;
//   if (!NginxServer::Installed(&why)) GTEST_SKIP() << why;
//   ASSERT_TRUE(nginx.Start(&why)) << why;
//   nginx.WriteFile("dir/a.bin", "bytes");  // now at nginx.Url() + "/dir/a.bin"
//
// nginx runs as a child of the test process and dies with it, also when the
// test process is killed. Start() and Stop() belong on the thread that
// created the object: the kernel ties the child's lifetime to that thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class NginxServer {
 public:
  // `server_extra` is pasted into the server block, e.g. "limit_rate 64k;" or
  // "location /whole/ { max_ranges 0; }".
  explicit NginxServer(std::string server_extra = "");
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  // False, with the reason, when there is no nginx to run.
  static bool Installed(std::string* reason);

  // Starts nginx and waits until it accepts connections. After a Stop() it
  // comes back on the same port and serves the same files. Returns false with
  // the reason (nginx's own complaint when it has one) on failure.
  bool Start(std::string* reason);
  // Terminates nginx; connections to the port are then refused.
  void Stop();
  bool running() const { return pid_ > 0; }

  int port() const { return port_; }
  std::string Url() const;          // "http://127.0.0.1:PORT"
  const std::string& Root() const { return root_; }  // the served directory
  const std::string& Dir() const { return dir_; }    // everything of this server

  // Writes `bytes` to Root() + "/" + rel_path, creating directories on the way.
  void WriteFile(const std::string& rel_path, const std::string& bytes) const;
  // Sets the modification time of Root() + "/" + rel_path.
  void SetMtime(const std::string& rel_path, long long seconds) const;
  // The contents of Root() + "/" + rel_path; false when it cannot be read.
  bool ReadFile(const std::string& rel_path, std::string* bytes) const;

  // One access log line per request, in order: method, decoded URI, Range
  // header ("-" when absent), status, body bytes sent and nginx's connection
  // serial number, separated by tabs.
  std::vector<std::string> AccessLog() const;
  struct Request {
    std::string method;
    std::string uri;
    std::string range;
    int status = 0;
    long long body_bytes = 0;
    long long connection = 0;
  };
  std::vector<Request> Requests() const;
  // nginx logs a request just after sending its answer, so a client may see
  // the answer before the line is there. Waits until at least `count`
  // requests are logged; false after 5 s.
  bool WaitForRequests(size_t count) const;
  // Requests with this method, and with this decoded URI unless it is empty.
  int CountRequests(const std::string& method, const std::string& uri = "") const;

 private:
  bool WriteConfig(std::string* reason) const;
  bool SpawnOnce(std::string* reason, bool* port_taken);

  std::string server_extra_;
  std::string dir_;
  std::string root_;
  int port_ = 0;
  pid_t pid_ = -1;
};
