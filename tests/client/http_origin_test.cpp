#include "http_origin.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <thread>

#include "client/support/nginx_server.h"
#include "http_listing.h"

namespace {

class CurlEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK); }
};
::testing::Environment* const kCurlEnvironment =
    ::testing::AddGlobalTestEnvironment(new CurlEnvironment);

// Skips when nginx is missing; a server that is installed but does not start
// is a failure.
#define START_NGINX(server)                                          \
  do {                                                               \
    std::string why_;                                                \
    if (!NginxServer::Installed(&why_)) GTEST_SKIP() << why_;        \
    ASSERT_TRUE((server).Start(&why_)) << why_;                      \
  } while (0)

// Bytes that differ from their neighbours and do not repeat with a short
// period, so a range delivered from the wrong offset cannot compare equal.
std::string Pattern(size_t size, uint32_t seed) {
  std::string out(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    out[i] = static_cast<char>(x >> 24);
  }
  return out;
}

std::unique_ptr<Origin> Connect(const std::string& url, long long timeout_ms = 5000) {
  OriginOptions options;
  options.timeout_ms = timeout_ms;
  std::string error;
  std::unique_ptr<Origin> origin = MakeHttpOrigin(url, options, &error);
  EXPECT_NE(origin, nullptr) << error;
  return origin;
}

struct Read {
  OriginStatus status = OriginStatus::kFailed;
  std::string bytes;
  int calls = 0;
  std::string error;
};

Read ReadRange(Origin* origin, const std::string& path, long long offset, long long length,
               const std::string& validator = "") {
  Read read;
  read.status = origin->ReadRange(
      path, offset, length, validator,
      [&read](const char* data, size_t size) {
        read.bytes.append(data, size);
        ++read.calls;
        return true;
      },
      &read.error);
  return read;
}

// Hands `size` bytes of `data` out in pieces of changing, mostly small size,
// to exercise partial fills of curl's upload buffer.
ByteSource SourceOf(const std::string& data, long long fail_at = -1) {
  return [data, fail_at](long long offset, char* buffer, size_t length) -> long long {
    if (fail_at >= 0 && offset >= fail_at) return -1;
    size_t piece = std::min<size_t>(length, 1 + static_cast<size_t>(offset % 3001));
    piece = std::min<size_t>(piece, data.size() - static_cast<size_t>(offset));
    memcpy(buffer, data.data() + offset, piece);
    return static_cast<long long>(piece);
  };
}

// Answers the first request on its port with `reply` and then closes the
// connection, or with `hold` keeps it open and silent until destroyed: the
// misbehaving servers nginx will not imitate.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::string reply, bool hold = false)
      : reply_(std::move(reply)), hold_(hold) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    listen(listener_, 4);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    if (pipe2(stop_, O_CLOEXEC) != 0) stop_[0] = stop_[1] = -1;
    thread_ = std::thread([this] { Serve(); });
  }
  ~ScriptedServer() {
    if (write(stop_[1], "x", 1) != 1) ADD_FAILURE() << "cannot stop the scripted server";
    thread_.join();
    close(listener_);
    close(stop_[0]);
    close(stop_[1]);
  }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  // Waits for `fd` to be readable; false when stopped or after 10 s.
  bool Wait(int fd) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    return poll(fds, 2, 10000) > 0 && fds[1].revents == 0;
  }
  void Serve() {
    if (!Wait(listener_)) return;
    int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos && Wait(fd)) {
      ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
      if (got <= 0) break;
      request.append(buffer, static_cast<size_t>(got));
    }
    if (send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL) < 0) ADD_FAILURE() << "send failed";
    if (hold_) Wait(stop_[0]);
    close(fd);
  }

  std::string reply_;
  bool hold_;
  int listener_ = -1;
  int port_ = 0;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};

TEST(HttpOriginUrlTest, AcceptsServerUrlsAndRejectsOthersWithoutNetwork) {
  OriginOptions options;
  std::string error;
  for (const char* bad : {"ftp://127.0.0.1/", "http://", "http://:80/", "127.0.0.1:8080",
                          "http://127.0.0.1:99999", "http://ho st/", "http://h/a?b=c",
                          "http://h/a#frag"}) {
    error.clear();
    EXPECT_EQ(MakeHttpOrigin(bad, options, &error), nullptr) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
  options.timeout_ms = 0;
  EXPECT_EQ(MakeHttpOrigin("http://127.0.0.1:1", options, &error), nullptr);

  // Port 1 has no server: construction must not connect.
  options.timeout_ms = 1000;
  for (const char* good : {"http://127.0.0.1:1", "http://127.0.0.1:1/", "HTTP://localhost:1/a/b/"}) {
    std::unique_ptr<Origin> origin = MakeHttpOrigin(good, options, &error);
    ASSERT_NE(origin, nullptr) << good << ": " << error;
    EXPECT_EQ(origin->Describe(), good);
  }
}

TEST(HttpListingTest, ParsesAutoindexJsonAndRejectsOtherAnswers) {
  long long seconds = 0;
  EXPECT_TRUE(ParseHttpDate("Sat, 03 Feb 2001 04:05:06 GMT", &seconds));
  EXPECT_EQ(seconds, 981173106);
  EXPECT_TRUE(ParseHttpDate("Thu, 29 Feb 2024 23:59:59 GMT", &seconds));
  EXPECT_EQ(seconds, 1709251199);
  for (const char* bad : {"", "Sat, 03 Feb 2001 04:05:06 UTC", "Sat, 3 Feb 2001 04:05:06 GMT",
                          "Sat, 03 Fex 2001 04:05:06 GMT", "Sat, 03 Feb 2001 24:05:06 GMT",
                          "Xyz, 03 Feb 2001 04:05:06 GMT", "Saturday, 03-Feb-01 04:05:06 GMT"}) {
    EXPECT_FALSE(ParseHttpDate(bad, &seconds)) << bad;
  }

  std::vector<OriginEntry> entries;
  std::string error;
  ASSERT_TRUE(ParseJsonListing(
      R"([{ "name":".", "type":"directory" }, { "name":"..", "type":"directory" },
          { "name":"d", "type":"directory", "mtime":"Sat, 03 Feb 2001 04:05:06 GMT" },
          { "name":"big \"q\".bin", "type":"file", "mtime":"bad date", "size":6000000000 },
          { "name":"fifo", "type":"other", "mtime":"Sat, 03 Feb 2001 04:05:06 GMT" },
          { "name":"a/b", "type":"file", "size":1 }])",
      &entries, &error))
      << error;
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "d");
  EXPECT_TRUE(entries[0].is_directory);
  EXPECT_EQ(entries[0].mtime, 981173106);
  EXPECT_EQ(entries[1].name, "big \"q\".bin");
  EXPECT_FALSE(entries[1].is_directory);
  EXPECT_EQ(entries[1].size, 6000000000LL);
  EXPECT_EQ(entries[1].mtime, 0);

  ASSERT_TRUE(ParseJsonListing("[]", &entries, &error));
  EXPECT_TRUE(entries.empty());
  for (const char* bad : {"<html><body>Index of /</body></html>", "{\"name\":\"a\"}",
                          "[{\"name\":\"a\",\"type\":\"file\"}]",
                          "[{\"name\":\"a\",\"type\":\"file\",\"size\":-1}]",
                          "[{\"type\":\"file\",\"size\":1}]", "[] trailing", ""}) {
    error.clear();
    EXPECT_FALSE(ParseJsonListing(bad, &entries, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

TEST(HttpOriginTest, ListsDirectoriesAndStatsFilesAndDirectories) {
  NginxServer nginx("location /html/ { autoindex_format html; }\n"
                    "location = /boom { return 500; }");
  START_NGINX(nginx);
  nginx.WriteFile("a.bin", Pattern(1000, 1));
  nginx.WriteFile("with space.txt", "hello");
  nginx.WriteFile("we?ird #name%.bin", "x");
  nginx.WriteFile("sub dir/inner file", Pattern(77, 2));
  nginx.WriteFile("html/page", "x");
  nginx.SetMtime("a.bin", 981173106);
  ASSERT_EQ(mkfifo((nginx.Root() + "/fifo").c_str(), 0644), 0);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);

  std::vector<OriginEntry> entries;
  std::string error;
  ASSERT_EQ(origin->List("/", &entries, &error), OriginStatus::kOk) << error;
  std::sort(entries.begin(), entries.end(),
            [](const OriginEntry& a, const OriginEntry& b) { return a.name < b.name; });
  std::vector<std::string> names;
  for (const OriginEntry& entry : entries) names.push_back(entry.name);
  EXPECT_EQ(names, (std::vector<std::string>{"a.bin", "html", "sub dir", "we?ird #name%.bin",
                                             "with space.txt"}));
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_FALSE(entries[0].is_directory);
  EXPECT_EQ(entries[0].size, 1000);
  EXPECT_EQ(entries[0].mtime, 981173106);
  EXPECT_TRUE(entries[2].is_directory);
  EXPECT_EQ(entries[2].size, 0);
  EXPECT_EQ(entries[3].size, 1);

  ASSERT_EQ(origin->List("/sub dir", &entries, &error), OriginStatus::kOk) << error;
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "inner file");
  EXPECT_EQ(entries[0].size, 77);
  EXPECT_EQ(origin->List("/missing", &entries, &error), OriginStatus::kNotFound);
  EXPECT_EQ(origin->List("/a.bin", &entries, &error), OriginStatus::kNotFound);
  EXPECT_EQ(origin->List("/html", &entries, &error), OriginStatus::kFailed);
  EXPECT_NE(error.find("JSON"), std::string::npos) << error;

  OriginFileInfo info;
  ASSERT_EQ(origin->Stat("/a.bin", &info, &error), OriginStatus::kOk) << error;
  EXPECT_FALSE(info.is_directory);
  EXPECT_EQ(info.size, 1000);
  EXPECT_EQ(info.mtime, 981173106);
  EXPECT_EQ(info.validator.substr(0, 1), "\"") << "nginx sends an ETag: " << info.validator;
  ASSERT_EQ(origin->Stat("/we?ird #name%.bin", &info, &error), OriginStatus::kOk) << error;
  EXPECT_EQ(info.size, 1);
  for (const char* directory : {"/", "/sub dir"}) {
    ASSERT_EQ(origin->Stat(directory, &info, &error), OriginStatus::kOk) << directory << error;
    EXPECT_TRUE(info.is_directory) << directory;
    EXPECT_EQ(info.size, 0) << directory;
  }
  EXPECT_EQ(origin->Stat("/missing", &info, &error), OriginStatus::kNotFound);
  EXPECT_EQ(origin->Stat("/boom", &info, &error), OriginStatus::kFailed);
  EXPECT_NE(error.find("HTTP 500"), std::string::npos) << error;

  // A URL with a path prefix serves that directory as the root.
  std::unique_ptr<Origin> prefixed = Connect(nginx.Url() + "/sub%20dir/");
  ASSERT_NE(prefixed, nullptr);
  ASSERT_EQ(prefixed->List("/", &entries, &error), OriginStatus::kOk) << error;
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "inner file");
  EXPECT_EQ(ReadRange(prefixed.get(), "/inner file", 0, 77).bytes, Pattern(77, 2));
}

TEST(HttpOriginTest, ReadsExactRangesOverOneConnection) {
  NginxServer nginx;
  START_NGINX(nginx);
  const std::string data = Pattern(100000, 3);
  const long long size = static_cast<long long>(data.size());
  nginx.WriteFile("dir/f.bin", data);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);

  struct Case {
    long long offset, length, expected;
  };
  for (const Case& c : {Case{0, 100, 100}, Case{12345, 4096, 4096}, Case{size - 10, 10, 10},
                        Case{size - 10, 100, 10}, Case{0, size, size}, Case{1, size + 5, size - 1}}) {
    Read read = ReadRange(origin.get(), "/dir/f.bin", c.offset, c.length);
    ASSERT_EQ(read.status, OriginStatus::kOk) << c.offset << "+" << c.length << ": " << read.error;
    EXPECT_EQ(read.bytes, data.substr(c.offset, c.expected)) << c.offset << "+" << c.length;
  }
  OriginFileInfo info;
  std::string error;
  ASSERT_EQ(origin->Stat("/dir/f.bin", &info, &error), OriginStatus::kOk) << error;

  ASSERT_TRUE(nginx.WaitForRequests(7));
  std::vector<NginxServer::Request> requests = nginx.Requests();
  ASSERT_EQ(requests.size(), 7u);
  EXPECT_EQ(requests[1].range, "bytes=12345-16440");
  for (const NginxServer::Request& request : requests) {
    EXPECT_EQ(request.connection, requests[0].connection)
        << "every request of a thread reuses its connection";
  }

  Read read = ReadRange(origin.get(), "/dir/f.bin", size + 5, 10);
  EXPECT_EQ(read.status, OriginStatus::kFailed);
  EXPECT_NE(read.error.find("not satisfiable"), std::string::npos) << read.error;
  EXPECT_TRUE(read.bytes.empty());
  EXPECT_EQ(ReadRange(origin.get(), "/dir/missing", 0, 10).status, OriginStatus::kNotFound);
  read = ReadRange(origin.get(), "/dir/f.bin", 5, 0);
  EXPECT_EQ(read.status, OriginStatus::kOk);
  EXPECT_EQ(read.calls, 0);

  // After the thread's connection is closed, the next request opens another.
  CloseHttpConnectionsOfThisThread();
  read = ReadRange(origin.get(), "/dir/f.bin", 7, 7);
  EXPECT_EQ(read.bytes, data.substr(7, 7)) << read.error;
  ASSERT_TRUE(nginx.WaitForRequests(10));
  requests = nginx.Requests();
  EXPECT_EQ(requests[8].connection, requests[0].connection);
  EXPECT_NE(requests[9].connection, requests[0].connection);

  // A sink that starts a request of its own mid-transfer.
  read = Read();
  read.status = origin->ReadRange(
      "/dir/f.bin", 500, 50000, "",
      [&](const char* bytes, size_t length) {
        OriginFileInfo nested;
        std::string nested_error;
        EXPECT_EQ(origin->Stat("/dir/f.bin", &nested, &nested_error), OriginStatus::kOk);
        read.bytes.append(bytes, length);
        return true;
      },
      &read.error);
  EXPECT_EQ(read.status, OriginStatus::kOk) << read.error;
  EXPECT_EQ(read.bytes, data.substr(500, 50000));
}

TEST(HttpOriginTest, StreamsIntoTheSinkAndStopsWhenItRefuses) {
  // nginx sends one 32 KiB buffer and then waits half a second per buffer:
  // the whole 4 MiB would take a minute, so only a read that streams gets
  // bytes to the sink before the test times out.
  NginxServer nginx("location /slow/ { limit_rate 64k; }");
  START_NGINX(nginx);
  const std::string data = Pattern(4 << 20, 4);
  nginx.WriteFile("slow/big.bin", data);
  nginx.WriteFile("small.bin", data.substr(0, 1000));
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);

  std::string received;
  int calls = 0;
  std::string error;
  OriginStatus status = origin->ReadRange(
      "/slow/big.bin", 0, static_cast<long long>(data.size()), "",
      [&](const char* bytes, size_t length) {
        received.append(bytes, length);
        ++calls;
        return received.size() < 20000;
      },
      &error);
  EXPECT_EQ(status, OriginStatus::kFailed) << "the sink stopped a read it had not finished";
  EXPECT_GT(calls, 1);
  EXPECT_GE(received.size(), 20000u);
  EXPECT_LT(received.size(), data.size());
  EXPECT_EQ(received, data.substr(0, received.size()));

  // Refusing more after the last byte of the range is no failure.
  received.clear();
  status = origin->ReadRange(
      "/small.bin", 10, 100, "",
      [&](const char* bytes, size_t length) {
        received.append(bytes, length);
        return false;
      },
      &error);
  EXPECT_EQ(status, OriginStatus::kOk) << error;
  EXPECT_EQ(received, data.substr(10, 100));
}

TEST(HttpOriginTest, ChangedFilesDeliverNothing) {
  NginxServer nginx("location /whole/ { max_ranges 0; }");
  START_NGINX(nginx);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);
  const std::string date = "Sat, 03 Feb 2001 04:05:06 GMT";

  // The same checks for a server that answers the range and one that ignores
  // it and sends the whole file.
  for (const std::string path : {"f.bin", "whole/f.bin"}) {
    SCOPED_TRACE(path);
    nginx.WriteFile(path, Pattern(5000, 5));
    nginx.SetMtime(path, 981173106);
    OriginFileInfo before;
    std::string error;
    ASSERT_EQ(origin->Stat("/" + path, &before, &error), OriginStatus::kOk) << error;
    Read read = ReadRange(origin.get(), "/" + path, 100, 200, before.validator);
    EXPECT_EQ(read.status, OriginStatus::kOk) << read.error;
    EXPECT_EQ(read.bytes, Pattern(5000, 5).substr(100, 200));
    EXPECT_EQ(ReadRange(origin.get(), "/" + path, 100, 200, date).status, OriginStatus::kOk)
        << "a Last-Modified validator compares with Last-Modified";

    nginx.WriteFile(path, Pattern(5001, 6));  // nginx's ETag is mtime and size
    nginx.SetMtime(path, 981173107);
    for (const std::string& stale : {before.validator, date}) {
      read = ReadRange(origin.get(), "/" + path, 100, 200, stale);
      EXPECT_EQ(read.status, OriginStatus::kChanged) << stale << ": " << read.error;
      EXPECT_EQ(read.calls, 0) << stale;
    }
    OriginFileInfo after;
    ASSERT_EQ(origin->Stat("/" + path, &after, &error), OriginStatus::kOk) << error;
    EXPECT_NE(after.validator, before.validator);
    read = ReadRange(origin.get(), "/" + path, 100, 200, after.validator);
    EXPECT_EQ(read.status, OriginStatus::kOk) << read.error;
    EXPECT_EQ(read.bytes, Pattern(5001, 6).substr(100, 200));
  }
}

TEST(HttpOriginTest, ServerIgnoringRangeStillGivesExactBytes) {
  NginxServer nginx("location /whole/ { max_ranges 0; }");
  START_NGINX(nginx);
  const std::string data = Pattern(300000, 7);
  const long long size = static_cast<long long>(data.size());
  nginx.WriteFile("whole/f.bin", data);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);

  struct Case {
    long long offset, length, expected;
  };
  for (const Case& c : {Case{0, 10, 10}, Case{123457, 5000, 5000}, Case{size - 7, 100, 7},
                        Case{70000, size, size - 70000}}) {
    Read read = ReadRange(origin.get(), "/whole/f.bin", c.offset, c.length);
    ASSERT_EQ(read.status, OriginStatus::kOk) << c.offset << "+" << c.length << ": " << read.error;
    EXPECT_EQ(read.bytes, data.substr(c.offset, c.expected)) << c.offset << "+" << c.length;
  }
  ASSERT_TRUE(nginx.WaitForRequests(4));
  for (const NginxServer::Request& request : nginx.Requests()) {
    EXPECT_EQ(request.status, 200) << "the location must ignore Range for this test to mean much";
  }
}

TEST(HttpOriginTest, StoppedServerIsUnreachableUntilItComesBack) {
  NginxServer nginx;
  START_NGINX(nginx);
  nginx.WriteFile("f.bin", Pattern(1000, 8));
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);
  OriginFileInfo info;
  std::string error;
  ASSERT_EQ(origin->Stat("/f.bin", &info, &error), OriginStatus::kOk) << error;

  nginx.Stop();
  std::vector<OriginEntry> entries;
  EXPECT_EQ(origin->Stat("/f.bin", &info, &error), OriginStatus::kUnreachable);
  EXPECT_NE(error.find(nginx.Url()), std::string::npos) << error;
  EXPECT_EQ(origin->List("/", &entries, &error), OriginStatus::kUnreachable);
  Read read = ReadRange(origin.get(), "/f.bin", 0, 10);
  EXPECT_EQ(read.status, OriginStatus::kUnreachable);
  EXPECT_TRUE(IsTransient(read.status));
  EXPECT_EQ(origin->Upload("/g.bin", 3, SourceOf("abc"), &error), OriginStatus::kUnreachable);

  std::string why;
  ASSERT_TRUE(nginx.Start(&why)) << why;
  read = ReadRange(origin.get(), "/f.bin", 10, 20);
  EXPECT_EQ(read.status, OriginStatus::kOk) << read.error;
  EXPECT_EQ(read.bytes, Pattern(1000, 8).substr(10, 20));
  EXPECT_EQ(origin->Upload("/g.bin", 3, SourceOf("abc"), &error), OriginStatus::kOk) << error;
}

TEST(HttpOriginTest, MisbehavingServersGiveAFailureNeverWrongBytes) {
  const std::string body = Pattern(1000, 9);
  {
    // The connection closes 300 bytes into a 1000-byte range.
    ScriptedServer server("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-999/1000\r\n"
                          "Content-Length: 1000\r\n\r\n" + body.substr(0, 300));
    Read read = ReadRange(Connect(server.Url()).get(), "/f", 0, 1000);
    EXPECT_EQ(read.status, OriginStatus::kUnreachable) << read.error;
    EXPECT_EQ(read.bytes, body.substr(0, 300));
  }
  {
    // A whole-file answer that closes before the end of the range.
    ScriptedServer server("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" +
                          body.substr(0, 300));
    Read read = ReadRange(Connect(server.Url()).get(), "/f", 200, 500);
    EXPECT_EQ(read.status, OriginStatus::kUnreachable) << read.error;
    EXPECT_EQ(read.bytes, body.substr(200, 100));
  }
  {
    // Bytes from somewhere else than asked for.
    ScriptedServer server("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-99/1000\r\n"
                          "Content-Length: 100\r\n\r\n" + body.substr(0, 100));
    Read read = ReadRange(Connect(server.Url()).get(), "/f", 50, 100);
    EXPECT_EQ(read.status, OriginStatus::kFailed) << read.error;
    EXPECT_EQ(read.calls, 0);
  }
  {
    // A multipart answer has no Content-Range of its own.
    ScriptedServer server("HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; "
                          "boundary=x\r\nContent-Length: 100\r\n\r\n" + body.substr(0, 100));
    Read read = ReadRange(Connect(server.Url()).get(), "/f", 0, 100);
    EXPECT_EQ(read.status, OriginStatus::kFailed) << read.error;
    EXPECT_EQ(read.calls, 0);
  }
  {
    // Headers and a few bytes, then silence: the stall time-out ends it.
    ScriptedServer server("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-999/1000\r\n"
                          "Content-Length: 1000\r\n\r\n" + body.substr(0, 100),
                          /*hold=*/true);
    Read read = ReadRange(Connect(server.Url(), 300).get(), "/f", 0, 1000);
    EXPECT_EQ(read.status, OriginStatus::kUnreachable) << read.error;
    EXPECT_EQ(read.bytes, body.substr(0, 100));
  }
}

TEST(HttpOriginTest, UploadsStoreTheWholeFileOrLeaveTheOldOne) {
  NginxServer nginx;
  START_NGINX(nginx);
  nginx.WriteFile("sub dir/keep", "x");
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);
  const std::string first = Pattern((3 << 20) + 7, 10);
  const std::string second = Pattern(5000, 11);
  std::string error;
  std::string stored;

  ASSERT_EQ(origin->Upload("/new dir/deep/f #1.bin", static_cast<long long>(first.size()),
                           SourceOf(first), &error),
            OriginStatus::kOk)
      << error;
  ASSERT_TRUE(nginx.ReadFile("new dir/deep/f #1.bin", &stored));
  EXPECT_TRUE(stored == first) << "stored " << stored.size() << " bytes";
  EXPECT_EQ(ReadRange(origin.get(), "/new dir/deep/f #1.bin", 1 << 20, 100).bytes,
            first.substr(1 << 20, 100));

  ASSERT_EQ(origin->Upload("/new dir/deep/f #1.bin", static_cast<long long>(second.size()),
                           SourceOf(second), &error),
            OriginStatus::kOk)
      << error;
  ASSERT_TRUE(nginx.ReadFile("new dir/deep/f #1.bin", &stored));
  EXPECT_EQ(stored, second);

  // A source failing half-way, or running dry before `size`, must not
  // replace the file with a prefix.
  EXPECT_EQ(origin->Upload("/new dir/deep/f #1.bin", static_cast<long long>(first.size()),
                           SourceOf(first, 1 << 20), &error),
            OriginStatus::kFailed);
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(origin->Upload("/new dir/deep/f #1.bin", static_cast<long long>(first.size()) + 10,
                           SourceOf(first), &error),
            OriginStatus::kFailed);
  ASSERT_TRUE(nginx.ReadFile("new dir/deep/f #1.bin", &stored));
  EXPECT_EQ(stored, second);

  ASSERT_EQ(origin->Upload("/empty", 0, SourceOf(""), &error), OriginStatus::kOk) << error;
  ASSERT_TRUE(nginx.ReadFile("empty", &stored));
  EXPECT_EQ(stored, "");
  EXPECT_EQ(origin->Upload("/sub dir", 1, SourceOf("x"), &error), OriginStatus::kFailed);
  EXPECT_NE(error.find("HTTP 4"), std::string::npos) << error;
}

TEST(HttpOriginTest, ThreadsReadConcurrentlyEachOnItsOwnConnection) {
  NginxServer nginx;
  START_NGINX(nginx);
  const std::string data = Pattern(200000, 12);
  nginx.WriteFile("f.bin", data);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  ASSERT_NE(origin, nullptr);

  constexpr int kThreads = 4;
  constexpr int kReads = 25;
  std::vector<std::string> failures(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kReads; ++i) {
        long long offset = (t * 7919 + i * 104729) % static_cast<long long>(data.size());
        Read read = ReadRange(origin.get(), "/f.bin", offset, 3000 + i);
        if (read.status != OriginStatus::kOk || read.bytes != data.substr(offset, 3000 + i)) {
          failures[t] += "read at " + std::to_string(offset) + ": " + read.error + "\n";
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
  ASSERT_TRUE(nginx.WaitForRequests(kThreads * kReads));
  std::vector<NginxServer::Request> requests = nginx.Requests();
  EXPECT_EQ(requests.size(), static_cast<size_t>(kThreads * kReads));
  std::vector<long long> connections;
  for (const NginxServer::Request& request : requests) connections.push_back(request.connection);
  std::sort(connections.begin(), connections.end());
  connections.erase(std::unique(connections.begin(), connections.end()), connections.end());
  EXPECT_EQ(connections.size(), static_cast<size_t>(kThreads));
}

}  // namespace
