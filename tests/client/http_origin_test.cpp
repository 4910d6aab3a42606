// The HTTP origin against scripted servers, also ones that misbehave in ways
// nginx will not: whatever they answer, no wrong byte reaches the reader and
// the status is the answer's. (Listings, reads and uploads against a real
// nginx run in the mount test.)
#include "http_origin.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "client/support/test_bytes.h"
#include "http_listing.h"

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

// Answers the first request on its port with `reply` and ends the
// connection, or with `hold` keeps it open and silent until destroyed.
struct ScriptedServer {
  ScriptedServer(const std::string& reply, bool hold) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(address);
    const timeval patience = {10, 0};  // accept and recv give up: a client that never comes hangs nothing
    setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    bind(listener, reinterpret_cast<sockaddr*>(&address), size);
    listen(listener, 4);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread = std::thread([this, reply, hold] {
      connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      std::string request;  // read up to the end of its headers
      for (char c; request.find("\r\n\r\n") == std::string::npos && recv(connection, &c, 1, 0) == 1;) request += c;
      send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
      if (!hold) shutdown(connection, SHUT_RDWR);
    });
  }
  ~ScriptedServer() {
    thread.join();
    close(connection);
    close(listener);
  }
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int connection = -1;
  std::string url;
  std::thread thread;
};

TEST(HttpOriginTest, RejectsOtherUrlsNeverConnectsEarlyAndTakesStatsAndUploadsAsAnswered) {
  std::string error;
  for (const char* bad : {"ftp://127.0.0.1/", "http://", "http://:80/", "127.0.0.1:8080", "http://127.0.0.1:99999",
                          "http://ho st/", "http://h/a?b=c", "http://h/a#frag"}) {
    EXPECT_EQ(MakeHttpOrigin(bad, OriginOptions(), &error), nullptr) << bad;
  }
  // Port 1 has no server: construction must not connect, and a request is
  // refused as a failure worth retrying.
  const ByteSink ignore = [](const char*, size_t) { return true; };
  EXPECT_EQ(Connect("HTTP://localhost:1/a/b/", 1000)->ReadRange("/f", 0, 10, "", ignore, &error),
            OriginStatus::kUnreachable);

  // Stats and uploads go by the status and headers the server answers;
  // listings leave out entries a later request could not address.
  OriginFileInfo info;
  ScriptedServer stat_server("HTTP/1.1 200 OK\r\nContent-Length: 1\r\nETag: \"e\"\r\n"
                             "Last-Modified: Sat, 03 Feb 2001 04:05:06 GMT\r\n\r\n", false);
  EXPECT_EQ(Connect(stat_server.url)->Stat("/f", &info, &error), OriginStatus::kOk);
  EXPECT_TRUE(info.size == 1 && info.mtime == 981173106 && info.validator == "\"e\"" && !info.is_directory);
  std::vector<OriginEntry> entries;
  ASSERT_TRUE(ParseJsonListing(R"([{"name":".","type":"directory"},{"name":"a/b","type":"file","size":1},)"
                               R"({"name":"d","type":"directory"}])", &entries, &error)) << error;
  EXPECT_TRUE(entries.size() == 1 && entries[0].name == "d" && entries[0].is_directory);
  EXPECT_FALSE(ParseJsonListing(std::string(1001, '['), &entries, &error));  // past jsoncpp's nesting limit
  ScriptedServer upload_server("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n", false);
  const ByteSource source = [](long long, char* buffer, size_t) { return buffer[0] = 'x', 1LL; };
  EXPECT_EQ(Connect(upload_server.url)->Upload("/f", 1, source, &error), OriginStatus::kFailed);
}

TEST(HttpScriptedServerTest, MisbehavingServersGiveAFailureNeverWrongBytes) {
  const std::string body = RandomBytes(1000, 9);
  // A 206 answer for [first, last] of which `sent` bytes arrive.
  auto partial = [&](long long first, long long last, size_t sent, const std::string& headers = "") {
    return "HTTP/1.1 206 Partial Content\r\n" + headers + "Content-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(last) + "/1000\r\nContent-Length: " + std::to_string(last - first + 1) + "\r\n\r\n" +
           body.substr(first, sent);
  };
  // A server ignoring Range: the whole file.
  const std::string whole = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + body;
  const std::string date = "Sat, 03 Feb 2001 04:05:06 GMT", etag = "ETag: \"v2\"\r\n";
  const std::string newer = "Last-Modified: Sat, 03 Feb 2001 04:05:07 GMT\r\n";
  const std::string multipart = "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; b=x\r\n\r\n";
  const OriginStatus ok = OriginStatus::kOk, failed = OriginStatus::kFailed, changed = OriginStatus::kChanged,
                     unreachable = OriginStatus::kUnreachable;
  enum Twist { kPlain, kServerStalls, kReaderRefuses };
  struct Case {
    const char* what;
    std::string reply, validator;
    long long offset, length, delivered;  // the reader is to get body.substr(offset, delivered)
    Twist twist;
    OriginStatus status;
  };
  const Case cases[] = {
      {"exact range", partial(100, 299, 200), "", 100, 200, 200, kPlain, ok},
      {"closed mid-range", partial(0, 999, 300), "", 0, 1000, 300, kPlain, unreachable},
      {"range from elsewhere", partial(0, 99, 100), "", 50, 100, 0, kPlain, failed},
      {"multipart", multipart, "", 0, 100, 0, kPlain, failed},
      {"Range ignored", whole, "", 123, 400, 400, kPlain, ok},
      {"Range ignored, range past the end", whole, "", 900, 500, 100, kPlain, ok},
      {"changed ETag", partial(0, 99, 100, etag), "\"v1\"", 0, 100, 0, kPlain, changed},
      {"changed Last-Modified", partial(0, 99, 100, newer), date, 0, 100, 0, kPlain, changed},
      {"no validator in the answer", partial(0, 99, 100), "\"v1\"", 0, 100, 100, kPlain, ok},
      {"not found", "HTTP/1.1 404 Not Found\r\n\r\n", "", 0, 100, 0, kPlain, OriginStatus::kNotFound},
      // The bytes that came before the stall reach the reader before it ends.
      {"stall after some bytes", partial(0, 999, 100), "", 0, 1000, 100, kServerStalls, unreachable},
      {"reader stops mid-range", partial(0, 999, 100), "", 0, 1000, 100, kReaderRefuses, failed},
      {"reader stops after the last byte", partial(100, 199, 100), "", 100, 100, 100, kReaderRefuses, ok},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedServer server(c.reply, c.twist == kServerStalls);
    std::string bytes, error;
    // A refusing reader takes the first bytes it is given and then stops.
    const ByteSink sink = [&](const char* data, size_t n) { return bytes.append(data, n), c.twist != kReaderRefuses; };
    std::unique_ptr<Origin> origin = Connect(server.url, c.twist == kServerStalls ? 300 : 10000);
    EXPECT_EQ(origin->ReadRange("/f", c.offset, c.length, c.validator, sink, &error), c.status) << error;
    EXPECT_EQ(bytes, body.substr(c.offset, c.delivered));
  }
}


}  // namespace
