// The HTTP origin against a real nginx (listings, stats, ranges, uploads,
// connections) and against scripted servers that misbehave in ways nginx
// will not: whatever they answer, no wrong byte reaches the reader.
#include "http_origin.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
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

const bool kCurlReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;

std::unique_ptr<Origin> Connect(const std::string& url, long long timeout_ms = 5000) {
  OriginOptions options;
  options.timeout_ms = timeout_ms;
  std::string error;
  std::unique_ptr<Origin> origin = MakeHttpOrigin(url, options, &error);
  EXPECT_TRUE(kCurlReady && origin != nullptr) << url << ": " << error;
  return origin;
}

struct Read {
  OriginStatus status = OriginStatus::kFailed;
  std::string bytes;
};

// With `refuse` the sink takes the first bytes it is given and then stops.
Read ReadRange(Origin* origin, const std::string& path, long long offset, long long length,
               const std::string& validator = "", bool refuse = false) {
  Read read;
  std::string error;
  const ByteSink sink = [&](const char* data, size_t size) { return read.bytes.append(data, size), !refuse; };
  read.status = origin->ReadRange(path, offset, length, validator, sink, &error);
  return read;
}

// Hands the bytes out in pieces of changing, mostly small size, to exercise
// partial fills of curl's upload buffer; fails from `fail_at` on.
ByteSource SourceOf(const std::string& data, long long fail_at = -1) {
  return [data, fail_at](long long offset, char* buffer, size_t length) -> long long {
    if (fail_at >= 0 && offset >= fail_at) return -1;
    const size_t at = static_cast<size_t>(offset), piece = std::min({length, 1 + at % 3001, data.size() - at});
    memcpy(buffer, data.data() + at, piece);
    return static_cast<long long>(piece);
  };
}

// "name size" per entry, directories marked with "/", sorted by name.
std::string Listed(std::vector<OriginEntry> entries) {
  std::sort(entries.begin(), entries.end(), [](const OriginEntry& a, const OriginEntry& b) { return a.name < b.name; });
  std::string all;
  for (const OriginEntry& e : entries) all += e.name + (e.is_directory ? "/ " : " ") + std::to_string(e.size) + ";";
  return all;
}

// Answers the first request on its port with `reply` and ends the
// connection, or with `hold` keeps it open and silent until destroyed.
class ScriptedServer {
 public:
  ScriptedServer(const std::string& reply, bool hold) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    const timeval patience = {10, 0};  // accept and recv give up: a client that never comes hangs nothing
    setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    listen(listener_, 4);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this, reply, hold] {
      connection_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      std::string request;
      char buffer[4096];
      for (ssize_t got = 1; got > 0 && request.find("\r\n\r\n") == std::string::npos;) {
        got = recv(connection_, buffer, sizeof(buffer), 0);
        request.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
      }
      send(connection_, reply.data(), reply.size(), MSG_NOSIGNAL);
      if (!hold) shutdown(connection_, SHUT_RDWR);
    });
  }
  ~ScriptedServer() {
    thread_.join();
    close(connection_);
    close(listener_);
  }
  const std::string& Url() const { return url_; }

 private:
  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int connection_ = -1;
  std::string url_;
  std::thread thread_;
};

// One nginx per test, with a directory whose listing is HTML and a path that
// answers 500. Skips when nginx is missing; a server that is installed but
// does not start is a failure.
class HttpOriginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!NginxServer::Installed(&why)) GTEST_SKIP() << why;
    ASSERT_TRUE(nginx_.Start(&why)) << why;
    origin_ = Connect(nginx_.Url());
  }

  NginxServer nginx_{"location /html/ { autoindex_format html; }\nlocation = /boom { return 500; }"};
  std::unique_ptr<Origin> origin_;
};

TEST(HttpOriginUrlTest, RejectsOtherUrlsAndNeverConnectsEarly) {
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
  std::unique_ptr<Origin> refused = Connect("HTTP://localhost:1/a/b/", 1000);
  ASSERT_TRUE(refused);
  OriginFileInfo info;
  std::vector<OriginEntry> entries;
  EXPECT_EQ(refused->Stat("/f", &info, &error), OriginStatus::kUnreachable);
  EXPECT_EQ(refused->List("/", &entries, &error), OriginStatus::kUnreachable);
  EXPECT_EQ(ReadRange(refused.get(), "/f", 0, 10).status, OriginStatus::kUnreachable);
  EXPECT_EQ(refused->Upload("/f", 3, SourceOf("abc"), &error), OriginStatus::kUnreachable);
}

TEST(HttpListingTest, TakesFilesAndDirectoriesOfAutoindexJsonAndRejectsOtherAnswers) {
  std::vector<OriginEntry> entries;
  std::string error;
  ASSERT_TRUE(ParseJsonListing(R"([{ "name":".", "type":"directory" }, { "name":"..", "type":"directory" },
          { "name":"d", "type":"directory", "mtime":"Thu, 29 Feb 2024 23:59:59 GMT" },
          { "name":"big \"q\".bin", "type":"file", "mtime":"bad date", "size":6000000000 },
          { "name":"fifo", "type":"other", "mtime":"Sat, 03 Feb 2001 04:05:06 GMT" },
          { "name":"a/b", "type":"file", "size":1 }])",
                               &entries, &error))
      << error;
  EXPECT_EQ(Listed(entries), "big \"q\".bin 6000000000;d/ 0;");
  EXPECT_EQ(entries[0].mtime, 1709251199);
  EXPECT_EQ(entries[1].mtime, 0);
  for (const char* bad : {"{\"name\":\"a\"}", "[{\"name\":\"a\",\"type\":\"file\"}]",
                          "[{\"name\":\"a\",\"type\":\"file\",\"size\":-1}]", "[] trailing"}) {
    EXPECT_FALSE(ParseJsonListing(bad, &entries, &error)) << bad;
  }
  long long seconds = 0;
  for (const char* bad : {"Sat, 03 Feb 2001 04:05:06 UTC", "Sat, 3 Feb 2001 04:05:06 GMT",
                          "Sat, 03 Fex 2001 04:05:06 GMT", "Sat, 03 Feb 2001 24:05:06 GMT"}) {
    EXPECT_FALSE(ParseHttpDate(bad, &seconds)) << bad;
  }
}

TEST(HttpScriptedServerTest, MisbehavingServersGiveAFailureNeverWrongBytes) {
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
  const std::string date = "Sat, 03 Feb 2001 04:05:06 GMT", etag = "ETag: \"v2\"\r\n";
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
      {"closed mid-range", partial(0, 999, 300), 0, 1000, "", kPlain, OriginStatus::kUnreachable, 0, 300},
      {"range from elsewhere", partial(0, 99, 100), 50, 100, "", kPlain, OriginStatus::kFailed, 0, 0},
      {"multipart answer",
       "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=x\r\nContent-Length: 100\r\n\r\n" +
           body.substr(0, 100),
       0, 100, "", kPlain, OriginStatus::kFailed, 0, 0},
      {"Range ignored", whole(1000), 123, 400, "", kPlain, OriginStatus::kOk, 123, 400},
      {"Range ignored, range past the end", whole(1000), 900, 500, "", kPlain, OriginStatus::kOk, 900, 100},
      {"Range ignored, closed early", whole(300), 200, 500, "", kPlain, OriginStatus::kUnreachable, 200, 100},
      {"changed ETag", partial(0, 99, 100, etag), 0, 100, "\"v1\"", kPlain, OriginStatus::kChanged, 0, 0},
      {"changed ETag, Range ignored", whole(1000, etag), 0, 100, "\"v1\"", kPlain, OriginStatus::kChanged, 0, 0},
      {"changed Last-Modified", partial(0, 99, 100, "Last-Modified: Sat, 03 Feb 2001 04:05:07 GMT\r\n"), 0, 100,
       date, kPlain, OriginStatus::kChanged, 0, 0},
      {"same ETag", partial(0, 99, 100, etag), 0, 100, "\"v2\"", kPlain, OriginStatus::kOk, 0, 100},
      {"same Last-Modified", partial(0, 99, 100, "Last-Modified: " + date + "\r\n"), 0, 100, date, kPlain,
       OriginStatus::kOk, 0, 100},
      {"no validator in the answer", partial(0, 99, 100), 0, 100, "\"v1\"", kPlain, OriginStatus::kOk, 0, 100},
      {"error page", "HTTP/1.1 500 Oops\r\nContent-Length: 5\r\n\r\noops!", 0, 100, "", kPlain,
       OriginStatus::kFailed, 0, 0},
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
    const int stall_ms = c.twist == kServerStalls ? 300 : 10000;
    const Read read = ReadRange(Connect(server.Url(), stall_ms).get(), "/f", c.offset, c.length, c.validator,
                                c.twist == kReaderRefuses);
    EXPECT_EQ(read.status, c.status);
    EXPECT_EQ(read.bytes, body.substr(c.from, c.count));
  }
}

TEST_F(HttpOriginTest, ListsDirectoriesAndStatsFilesAndDirectories) {
  for (const char* name : {"we?ird #name%.bin", "html/page"}) nginx_.WriteFile(name, "x");
  nginx_.WriteFile("a.bin", RandomBytes(1000, 1));
  nginx_.WriteFile("sub dir/inner file", RandomBytes(77, 2));

  std::vector<OriginEntry> entries;
  std::string error;
  ASSERT_EQ(origin_->List("/", &entries, &error), OriginStatus::kOk) << error;
  EXPECT_EQ(Listed(entries), "a.bin 1000;html/ 0;sub dir/ 0;we?ird #name%.bin 1;");
  EXPECT_EQ(origin_->List("/missing", &entries, &error), OriginStatus::kNotFound);
  EXPECT_EQ(origin_->List("/a.bin", &entries, &error), OriginStatus::kNotFound);
  EXPECT_EQ(origin_->List("/html", &entries, &error), OriginStatus::kFailed);

  OriginFileInfo info;
  ASSERT_EQ(origin_->Stat("/a.bin", &info, &error), OriginStatus::kOk) << error;
  EXPECT_TRUE(!info.is_directory && info.size == 1000 && info.validator[0] == '"') << info.validator;
  EXPECT_EQ(info.mtime, NginxServer::kFileMtime);
  ASSERT_EQ(origin_->Stat("/we?ird #name%.bin", &info, &error), OriginStatus::kOk) << error;
  EXPECT_EQ(info.size, 1);
  ASSERT_EQ(origin_->Stat("/sub dir", &info, &error), OriginStatus::kOk) << error;
  EXPECT_TRUE(info.is_directory && info.size == 0);
  EXPECT_EQ(origin_->Stat("/missing", &info, &error), OriginStatus::kNotFound);
  EXPECT_EQ(origin_->Stat("/boom", &info, &error), OriginStatus::kFailed);

  // A URL with a path prefix serves that directory as the root.
  std::unique_ptr<Origin> prefixed = Connect(nginx_.Url() + "/sub%20dir/");
  ASSERT_EQ(prefixed->List("/", &entries, &error), OriginStatus::kOk) << error;
  EXPECT_EQ(Listed(entries), "inner file 77;");
  EXPECT_EQ(ReadRange(prefixed.get(), "/inner file", 0, 77).bytes, RandomBytes(77, 2));
}

TEST_F(HttpOriginTest, ReadsExactRangesOverOneConnectionAndUploadsWholeFilesOnly) {
  const std::string data = RandomBytes(100000, 3);
  const long long size = static_cast<long long>(data.size());
  nginx_.WriteFile("dir/f.bin", data);
  struct Case {
    long long offset, length, expected;
    OriginStatus status = OriginStatus::kOk;
  };
  for (const Case& c : {Case{12345, 4096, 4096}, Case{size - 10, 100, 10}, Case{1, size + 5, size - 1},
                        Case{5, 0, 0}, Case{size + 5, 10, 0, OriginStatus::kFailed}}) {
    const Read read = ReadRange(origin_.get(), "/dir/f.bin", c.offset, c.length);
    EXPECT_EQ(read.status, c.status) << c.offset << "+" << c.length;
    EXPECT_EQ(read.bytes, data.substr(std::min(c.offset, size), c.expected)) << c.offset << "+" << c.length;
  }
  EXPECT_EQ(ReadRange(origin_.get(), "/dir/missing", 0, 10).status, OriginStatus::kNotFound);
  // After the thread's connection is closed, the next request opens another.
  CloseHttpConnectionsOfThisThread();
  EXPECT_EQ(ReadRange(origin_.get(), "/dir/f.bin", 7, 7).bytes, data.substr(7, 7));
  std::vector<NginxServer::Request> requests = nginx_.Requests(6);
  ASSERT_EQ(requests.size(), 6u);
  EXPECT_EQ(requests[0].range, "bytes=12345-16440");
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(requests[i].connection, requests[0].connection) << i;
  EXPECT_NE(requests[5].connection, requests[0].connection);

  // A sink that starts a request of its own mid-transfer.
  std::string bytes, error;
  EXPECT_EQ(origin_->ReadRange("/dir/f.bin", 500, 50000, "",
                               [&](const char* piece, size_t length) {
                                 OriginFileInfo nested;
                                 EXPECT_EQ(origin_->Stat("/dir/f.bin", &nested, &error), OriginStatus::kOk);
                                 return bytes.append(piece, length), true;
                               },
                               &error),
            OriginStatus::kOk);
  EXPECT_EQ(bytes, data.substr(500, 50000));

  // An upload replaces the whole file or nothing: a source failing half-way,
  // or running dry before the size, leaves the old one.
  const std::string first = RandomBytes((3 << 20) + 7, 10);
  const long long first_size = static_cast<long long>(first.size());
  const std::string path = "/new dir/deep/f #1.bin";
  ASSERT_EQ(origin_->Upload(path, first_size, SourceOf(first), &error), OriginStatus::kOk) << error;
  EXPECT_TRUE(Same(nginx_.ReadFile(path.substr(1)), first));
  EXPECT_EQ(origin_->Upload(path, first_size, SourceOf(first, 1 << 20), &error), OriginStatus::kFailed);
  EXPECT_EQ(origin_->Upload(path, first_size + 10, SourceOf(first), &error), OriginStatus::kFailed);
  EXPECT_TRUE(Same(nginx_.ReadFile(path.substr(1)), first));
  ASSERT_EQ(origin_->Upload("/empty", 0, SourceOf(""), &error), OriginStatus::kOk) << error;
  EXPECT_EQ(FileSize(nginx_.Root() + "/empty"), 0);
  EXPECT_EQ(origin_->Upload("/dir", 1, SourceOf("x"), &error), OriginStatus::kFailed);
}

}  // namespace
