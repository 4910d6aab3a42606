// The libcurl plumbing under the HTTP origin: a reusable handle per thread,
// the options every request shares, the response headers the origin looks at,
// the mapping of curl's failures onto origin statuses, and small requests
// whose whole answer is wanted.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <string>
#include <vector>

#include "origin.h"

// Lends the calling thread's easy handle for one request. Every request of a
// thread goes through the same handle, so that its connection cache keeps the
// connection to the server open instead of paying a handshake per small
// range. A sink or source that starts a request of its own while the
// thread's handle is mid-transfer gets a private handle instead.
// The thread's handle is released at thread exit or by
// CloseHttpConnectionsOfThisThread().
class EasyHandle {
 public:
  EasyHandle();
  ~EasyHandle();
  EasyHandle(const EasyHandle&) = delete;
  EasyHandle& operator=(const EasyHandle&) = delete;
  CURL* get() const { return handle_; }

 private:
  CURL* handle_ = nullptr;
  bool shared_ = false;
};

struct TransferLimits {
  long connect_timeout_ms = 5000;
  // A request during which no byte moves for this long fails.
  std::chrono::milliseconds stall{15000};
};

// What one request needs besides its body: the headers of the final response
// (an interim "100 Continue" is dropped) and the stall watch. Must outlive
// the transfer it was prepared for.
struct Response {
  std::string etag;
  std::string last_modified;
  std::string content_range;
  std::string location;
  char curl_error[CURL_ERROR_SIZE] = {};

  std::chrono::milliseconds stall_limit{0};
  std::chrono::steady_clock::time_point last_progress;
  curl_off_t downloaded = -1;
  curl_off_t uploaded = -1;
  bool stalled = false;
};

// Sets the URL, time-outs and header capture on `curl` (a fresh or reset
// handle). False with `error` set when there is no handle.
bool PrepareTransfer(CURL* curl, const std::string& url, const TransferLimits& limits,
                     Response* response, std::string* error);

long ResponseCode(CURL* curl);

// Describes a failed curl_easy_perform() in `error` and classifies it:
// refused, reset, cut short or stalled is kUnreachable, anything else kFailed.
OriginStatus TransferFailure(CURLcode result, const char* method, const std::string& url,
                             const Response& response, std::string* error);

// "/a b/c#1" -> "/a%20b/c%231": each component escaped, the slashes kept.
std::string EscapeUrlPath(const std::string& path);

// base + the escaped `path`, with a trailing slash for a directory (which
// nginx's WebDAV methods and listings want).
std::string UrlForPath(const std::string& base, const std::string& path, bool directory);

// A listing or WebDAV answer this large is a misconfigured or hostile
// server, not a directory.
constexpr size_t kMaxListingBytes = 64u << 20;

// A request whose whole answer is wanted: a listing or a WebDAV method.
struct SmallRequest {
  const char* method = "GET";
  std::string url;
  std::vector<std::string> headers;  // "Name: value"
  std::string body;                  // sent when not empty
};

// Sends `request` and keeps the answer's status in `code` and its body (at
// most kMaxListingBytes) in `answer`. kOk whenever the server answered, with
// whatever status; a failed transfer is classified by TransferFailure, a
// body over the limit is kFailed.
OriginStatus PerformSmallRequest(const SmallRequest& request, const TransferLimits& limits, long* code,
                                 std::string* answer, std::string* error);
