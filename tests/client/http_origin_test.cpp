// The HTTP origin against a real nginx (listings, stats, ranges, uploads,
// connections) and against scripted servers that misbehave in ways nginx
// will not: whatever they answer, no wrong byte reaches the reader.
#include "http_origin.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "client/support/nginx_server.h"
#include "client/support/test_bytes.h"
#include "http_listing.h"
#include "support/file_helpers.h"

namespace {

class CurlEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK); }
};
::testing::Environment* const kCurlEnvironment = ::testing::AddGlobalTestEnvironment(new CurlEnvironment);

// Skips when nginx is missing; a server that is installed but does not start
// is a failure.
#define START_NGINX(server)                                   \
  do {                                                        \
    std::string why_;                                         \
    if (!NginxServer::Installed(&why_)) GTEST_SKIP() << why_; \
    ASSERT_TRUE((server).Start(&why_)) << why_;               \
  } while (0)

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

// With `refuse` the sink takes the first bytes it is given and then stops.
Read ReadRange(Origin* origin, const std::string& path, long long offset, long long length,
               const std::string& validator = "", bool refuse = false) {
  Read read;
  read.status = origin->ReadRange(
      path, offset, length, validator,
      [&](const char* data, size_t size) {
        read.bytes.append(data, size);
        ++read.calls;
        return !refuse;
      },
      &read.error);
  return read;
}

// Hands the bytes out in pieces of changing, mostly small size, to exercise
// partial fills of curl's upload buffer; fails from `fail_at` on.
ByteSource SourceOf(const std::string& data, long long fail_at = -1) {
  return [data, fail_at](long long offset, char* buffer, size_t length) -> long long {
    if (fail_at >= 0 && offset >= fail_at) return -1;
    size_t piece = std::min<size_t>(length, 1 + static_cast<size_t>(offset % 3001));
    piece = std::min<size_t>(piece, data.size() - static_cast<size_t>(offset));
    memcpy(buffer, data.data() + offset, piece);
    return static_cast<long long>(piece);
  };
}

// Answers the first request on its port with `reply` and closes the
// connection, or with `hold` keeps it open and silent until destroyed.
class ScriptedServer {
 public:
  ScriptedServer(std::string reply, bool hold) : reply_(std::move(reply)), hold_(hold) {
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
    for (int fd : {listener_, stop_[0], stop_[1]}) close(fd);
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
    const int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos && Wait(fd)) {
      const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
      if (got <= 0) break;
      request.append(buffer, static_cast<size_t>(got));
    }
    if (send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL) < 0) ADD_FAILURE() << "send failed";
    if (hold_) Wait(stop_[0]);
    close(fd);
  }

  const std::string reply_;
  const bool hold_;
  int listener_ = -1;
  int port_ = 0;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};

TEST(HttpOriginUrlTest, AcceptsServerUrlsRejectsOthersAndNeverConnectsEarly) {
  OriginOptions options;
  std::string error;
  for (const char* bad : {"ftp://127.0.0.1/", "http://", "http://:80/", "127.0.0.1:8080", "http://127.0.0.1:99999",
                          "http://ho st/", "http://h/a?b=c", "http://h/a#frag"}) {
    EXPECT_EQ(MakeHttpOrigin(bad, options, &error), nullptr) << bad;
  }
  options.timeout_ms = 0;
  EXPECT_EQ(MakeHttpOrigin("http://127.0.0.1:1", options, &error), nullptr);

  // Port 1 has no server: construction must not connect, and every request
  // is refused as a failure worth retrying.
  options.timeout_ms = 1000;
  for (const char* good : {"http://127.0.0.1:1", "http://127.0.0.1:1/", "HTTP://localhost:1/a/b/"}) {
    std::unique_ptr<Origin> origin = MakeHttpOrigin(good, options, &error);
    ASSERT_NE(origin, nullptr) << good << ": " << error;
    EXPECT_EQ(origin->Describe(), good);
  }
  std::unique_ptr<Origin> refused = Connect("http://127.0.0.1:1");
  OriginFileInfo info;
  std::vector<OriginEntry> entries;
  EXPECT_EQ(refused->Stat("/f", &info, &error), OriginStatus::kUnreachable);
  EXPECT_EQ(refused->List("/", &entries, &error), OriginStatus::kUnreachable);
  EXPECT_EQ(ReadRange(refused.get(), "/f", 0, 10).status, OriginStatus::kUnreachable);
  EXPECT_EQ(refused->Upload("/f", 3, SourceOf("abc"), &error), OriginStatus::kUnreachable);
}

TEST(HttpListingTest, ParsesAutoindexJsonAndDatesAndRejectsOtherAnswers) {
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
  ASSERT_TRUE(ParseJsonListing(R"([{ "name":".", "type":"directory" }, { "name":"..", "type":"directory" },
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
                          "[{\"name\":\"a\",\"type\":\"file\"}]", "[{\"name\":\"a\",\"type\":\"file\",\"size\":-1}]",
                          "[{\"type\":\"file\",\"size\":1}]", "[] trailing", ""}) {
    EXPECT_FALSE(ParseJsonListing(bad, &entries, &error)) << bad;
  }
}

TEST(HttpOriginTest, MisbehavingServersGiveAFailureNeverWrongBytes) {
  const std::string body = RandomBytes(1000, 9);
  // A 206 answer for [first, last] of which `sent` bytes arrive.
  auto partial = [&](long long first, long long last, size_t sent, const std::string& headers = "") {
    return "HTTP/1.1 206 Partial Content\r\n" + headers + "Content-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(last) + "/1000\r\nContent-Length: " + std::to_string(last - first + 1) + "\r\n\r\n" +
           body.substr(first, sent);
  };
  // A server ignoring Range: the whole file, of which `sent` bytes arrive.
  auto whole = [&](size_t sent, const std::string& headers = "") {
    return "HTTP/1.1 200 OK\r\n" + headers + "Content-Length: 1000\r\n\r\n" + body.substr(0, sent);
  };
  const std::string date = "Sat, 03 Feb 2001 04:05:06 GMT";
  enum Twist { kPlain, kServerStalls, kReaderRefuses };
  struct Case {
    const char* what;
    std::string reply;
    long long offset, length;
    std::string validator;
    Twist twist;
    OriginStatus status;
    size_t from, count;  // the bytes expected: body.substr(from, count)
  };
  const Case cases[] = {
      {"exact range", partial(100, 299, 200), 100, 200, "", kPlain, OriginStatus::kOk, 100, 200},
      {"connection closed mid-range", partial(0, 999, 300), 0, 1000, "", kPlain, OriginStatus::kUnreachable, 0, 300},
      {"range from elsewhere", partial(0, 99, 100), 50, 100, "", kPlain, OriginStatus::kFailed, 0, 0},
      {"multipart answer",
       "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=x\r\nContent-Length: 100\r\n\r\n" +
           body.substr(0, 100),
       0, 100, "", kPlain, OriginStatus::kFailed, 0, 0},
      {"Range ignored", whole(1000), 123, 400, "", kPlain, OriginStatus::kOk, 123, 400},
      {"Range ignored, range past the end", whole(1000), 900, 500, "", kPlain, OriginStatus::kOk, 900, 100},
      {"Range ignored, closed early", whole(300), 200, 500, "", kPlain, OriginStatus::kUnreachable, 200, 100},
      {"changed ETag", partial(0, 99, 100, "ETag: \"v2\"\r\n"), 0, 100, "\"v1\"", kPlain, OriginStatus::kChanged, 0, 0},
      {"changed ETag, Range ignored", whole(1000, "ETag: \"v2\"\r\n"), 0, 100, "\"v1\"", kPlain,
       OriginStatus::kChanged, 0, 0},
      {"changed Last-Modified", partial(0, 99, 100, "Last-Modified: Sat, 03 Feb 2001 04:05:07 GMT\r\n"), 0, 100,
       date, kPlain, OriginStatus::kChanged, 0, 0},
      {"same ETag", partial(0, 99, 100, "ETag: \"v1\"\r\n"), 0, 100, "\"v1\"", kPlain, OriginStatus::kOk, 0, 100},
      {"same Last-Modified", partial(0, 99, 100, "Last-Modified: " + date + "\r\n"), 0, 100, date, kPlain,
       OriginStatus::kOk, 0, 100},
      {"no validator in the answer", partial(0, 99, 100), 0, 100, "\"v1\"", kPlain, OriginStatus::kOk, 0, 100},
      {"not found", "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot here!", 0, 100, "", kPlain,
       OriginStatus::kNotFound, 0, 0},
      {"error page", "HTTP/1.1 500 Oops\r\nContent-Length: 5\r\n\r\noops!", 0, 100, "", kPlain,
       OriginStatus::kFailed, 0, 0},
      {"range not satisfiable", "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Length: 0\r\n\r\n", 2000, 10, "",
       kPlain, OriginStatus::kFailed, 0, 0},
      // The bytes that came before the stall reach the reader before it ends.
      {"stall after some bytes", partial(0, 999, 100), 0, 1000, "", kServerStalls, OriginStatus::kUnreachable, 0,
       100},
      {"reader stops mid-range", partial(0, 999, 100), 0, 1000, "", kReaderRefuses, OriginStatus::kFailed, 0, 100},
      {"reader stops after the last byte", partial(100, 199, 100), 100, 100, "", kReaderRefuses, OriginStatus::kOk,
       100, 100},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedServer server(c.reply, c.twist == kServerStalls);
    const Read read = ReadRange(Connect(server.Url(), 300).get(), "/f", c.offset, c.length, c.validator,
                                c.twist == kReaderRefuses);
    EXPECT_EQ(read.status, c.status) << read.error;
    EXPECT_EQ(read.bytes, body.substr(c.from, c.count));
  }
}

TEST(HttpOriginTest, ListsDirectoriesAndStatsFilesAndDirectories) {
  NginxServer nginx("location /html/ { autoindex_format html; }\nlocation = /boom { return 500; }");
  START_NGINX(nginx);
  nginx.WriteFile("a.bin", RandomBytes(1000, 1));
  nginx.WriteFile("with space.txt", "hello");
  nginx.WriteFile("we?ird #name%.bin", "x");
  nginx.WriteFile("sub dir/inner file", RandomBytes(77, 2));
  nginx.WriteFile("html/page", "x");
  nginx.SetMtime("a.bin", 981173106);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());

  std::vector<OriginEntry> entries;
  std::string error;
  ASSERT_EQ(origin->List("/", &entries, &error), OriginStatus::kOk) << error;
  std::sort(entries.begin(), entries.end(), [](const OriginEntry& a, const OriginEntry& b) { return a.name < b.name; });
  std::vector<std::string> names;
  for (const OriginEntry& entry : entries) names.push_back(entry.name);
  EXPECT_EQ(names, (std::vector<std::string>{"a.bin", "html", "sub dir", "we?ird #name%.bin", "with space.txt"}));
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

  // A URL with a path prefix serves that directory as the root.
  std::unique_ptr<Origin> prefixed = Connect(nginx.Url() + "/sub%20dir/");
  ASSERT_EQ(prefixed->List("/", &entries, &error), OriginStatus::kOk) << error;
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "inner file");
  EXPECT_EQ(ReadRange(prefixed.get(), "/inner file", 0, 77).bytes, RandomBytes(77, 2));
}

TEST(HttpOriginTest, ReadsExactRangesOverOneConnection) {
  NginxServer nginx;
  START_NGINX(nginx);
  const std::string data = RandomBytes(100000, 3);
  const long long size = static_cast<long long>(data.size());
  nginx.WriteFile("dir/f.bin", data);
  std::unique_ptr<Origin> origin = Connect(nginx.Url());

  struct Case {
    long long offset, length, expected;
  };
  for (const Case& c : {Case{0, 100, 100}, Case{12345, 4096, 4096}, Case{size - 10, 10, 10}, Case{size - 10, 100, 10},
                        Case{0, size, size}, Case{1, size + 5, size - 1}}) {
    const Read read = ReadRange(origin.get(), "/dir/f.bin", c.offset, c.length);
    ASSERT_EQ(read.status, OriginStatus::kOk) << c.offset << "+" << c.length << ": " << read.error;
    EXPECT_EQ(read.bytes, data.substr(c.offset, c.expected)) << c.offset << "+" << c.length;
  }
  Read read = ReadRange(origin.get(), "/dir/f.bin", size + 5, 10);
  EXPECT_EQ(read.status, OriginStatus::kFailed);
  EXPECT_EQ(read.calls, 0);
  EXPECT_EQ(ReadRange(origin.get(), "/dir/missing", 0, 10).status, OriginStatus::kNotFound);
  read = ReadRange(origin.get(), "/dir/f.bin", 5, 0);
  EXPECT_EQ(read.status, OriginStatus::kOk);
  EXPECT_EQ(read.calls, 0);
  // After the thread's connection is closed, the next request opens another.
  CloseHttpConnectionsOfThisThread();
  EXPECT_EQ(ReadRange(origin.get(), "/dir/f.bin", 7, 7).bytes, data.substr(7, 7));
  ASSERT_TRUE(nginx.WaitForRequests(9));
  std::vector<NginxServer::Request> requests = nginx.Requests();
  EXPECT_EQ(requests[1].range, "bytes=12345-16440");
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(requests[i].connection, requests[0].connection) << i;
  EXPECT_NE(requests[8].connection, requests[0].connection);

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

TEST(HttpOriginTest, UploadsStoreTheWholeFileOrLeaveTheOldOne) {
  NginxServer nginx;
  START_NGINX(nginx);
  nginx.WriteFile("sub dir/keep", "x");
  std::unique_ptr<Origin> origin = Connect(nginx.Url());
  const std::string first = RandomBytes((3 << 20) + 7, 10);
  const std::string second = RandomBytes(5000, 11);
  const std::string path = "/new dir/deep/f #1.bin";
  const long long first_size = static_cast<long long>(first.size());
  std::string error;

  ASSERT_EQ(origin->Upload(path, first_size, SourceOf(first), &error), OriginStatus::kOk) << error;
  EXPECT_TRUE(nginx.ReadFile(path.substr(1)) == first);
  EXPECT_EQ(ReadRange(origin.get(), path, 1 << 20, 100).bytes, first.substr(1 << 20, 100));
  ASSERT_EQ(origin->Upload(path, 5000, SourceOf(second), &error), OriginStatus::kOk) << error;
  // A source failing half-way, or running dry before the size, must not
  // replace the file with a prefix.
  EXPECT_EQ(origin->Upload(path, first_size, SourceOf(first, 1 << 20), &error), OriginStatus::kFailed);
  EXPECT_EQ(origin->Upload(path, first_size + 10, SourceOf(first), &error), OriginStatus::kFailed);
  EXPECT_EQ(nginx.ReadFile(path.substr(1)), second);

  ASSERT_EQ(origin->Upload("/empty", 0, SourceOf(""), &error), OriginStatus::kOk) << error;
  EXPECT_TRUE(Exists(nginx.Root() + "/empty"));
  EXPECT_EQ(nginx.ReadFile("empty"), "");
  EXPECT_EQ(origin->Upload("/sub dir", 1, SourceOf("x"), &error), OriginStatus::kFailed);
}

}  // namespace
