// A real nginx for one test, on a free loopback port, serving a fresh
// temporary directory with JSON autoindex listings and WebDAV PUT.
//
//   NginxServer nginx;
//   std::string why;
//   if (!NginxServer::Installed(&why)) GTEST_SKIP() << why;
//   ASSERT_TRUE(nginx.Start(&why)) << why;
//   nginx.WriteFile("dir/a.bin", "bytes");  // now at nginx.Url() + "/dir/a.bin"
//
// nginx runs as a child of the test process and dies with it. Start() and
// Stop() belong on the thread that created the object: the kernel ties the
// child's lifetime to that thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

class NginxServer {
 public:
  // `server_extra` is pasted into the server block, e.g. "limit_rate 64k;".
  explicit NginxServer(std::string server_extra = "");
  ~NginxServer() { Stop(); }
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  // False, with the reason, when there is no nginx to run.
  static bool Installed(std::string* reason);
  // Starts nginx and waits until it listens. After a Stop() it comes back on
  // the same port and serves the same files. Returns false with nginx's
  // complaint on failure.
  bool Start(std::string* reason);
  // Terminates nginx; connections to the port are then refused.
  void Stop();

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string Root() const { return dir_.File("root"); }  // the served directory

  // Writes `bytes` to Root() + "/" + rel_path, creating directories on the
  // way, with kFileMtime as its modification time.
  void WriteFile(const std::string& rel_path, const std::string& bytes) const;
  static constexpr long long kFileMtime = 981173106;  // Sat, 03 Feb 2001 04:05:06 GMT
  // The contents of Root() + "/" + rel_path; empty when it cannot be read.
  std::string ReadFile(const std::string& rel_path) const;

  struct Request {
    std::string range;  // the Range header, "-" when absent
    long long connection = 0;  // nginx's serial number of the connection
  };
  // The requests in the order nginx logged them, which it does just after
  // answering: waits up to 5 s until at least `count` are there.
  std::vector<Request> Requests(size_t count) const;

 private:
  void WriteConfig() const;

  TempDir dir_;
  const std::string server_extra_;
  int port_ = 0;
  pid_t pid_ = -1;
};
