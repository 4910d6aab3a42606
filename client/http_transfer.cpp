#include "http_transfer.h"

#include <cctype>

#include "http_origin.h"

namespace {

struct ThreadCurl {
  CURL* handle = nullptr;
  bool busy = false;
  ~ThreadCurl() {
    if (handle != nullptr) curl_easy_cleanup(handle);
  }
};
thread_local ThreadCurl t_curl;

// curl's own low-speed check averages over its last few seconds of samples,
// so a server that falls silent after sending some bytes is noticed up to
// five seconds late; this watches for the moment bytes stop moving.
int OnProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  Response* response = static_cast<Response*>(user);
  auto now = std::chrono::steady_clock::now();
  if (downloaded != response->downloaded || uploaded != response->uploaded) {
    response->downloaded = downloaded;
    response->uploaded = uploaded;
    response->last_progress = now;
    return 0;
  }
  if (now - response->last_progress < response->stall_limit) return 0;
  response->stalled = true;
  return 1;
}

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
  Response* response = static_cast<Response*>(user);
  const size_t bytes = size * count;
  std::string line(data, bytes);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
  if (line.compare(0, 5, "HTTP/") == 0) {
    response->etag.clear();
    response->last_modified.clear();
    response->content_range.clear();
    response->location.clear();
    return bytes;
  }
  size_t colon = line.find(':');
  if (colon == std::string::npos) return bytes;
  std::string name = line.substr(0, colon);
  for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  size_t start = line.find_first_not_of(" \t", colon + 1);
  std::string value = start == std::string::npos ? std::string() : line.substr(start);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.pop_back();
  if (name == "etag") response->etag = value;
  else if (name == "last-modified") response->last_modified = value;
  else if (name == "content-range") response->content_range = value;
  else if (name == "location") response->location = value;
  return bytes;
}

size_t AppendCappedBody(char* data, size_t size, size_t count, void* user) {
  std::string* body = static_cast<std::string*>(user);
  if (body->size() + size * count > kMaxListingBytes) return 0;
  body->append(data, size * count);
  return size * count;
}

}  // namespace

EasyHandle::EasyHandle() {
  if (!t_curl.busy) {
    if (t_curl.handle == nullptr) t_curl.handle = curl_easy_init();
    handle_ = t_curl.handle;
    shared_ = handle_ != nullptr;
    t_curl.busy = shared_;
  } else {
    handle_ = curl_easy_init();
  }
}

EasyHandle::~EasyHandle() {
  if (shared_) {
    // Leaves no pointer to this request's callbacks and buffers behind; the
    // connection cache survives the reset.
    curl_easy_reset(handle_);
    t_curl.busy = false;
  } else if (handle_ != nullptr) {
    curl_easy_cleanup(handle_);
  }
}

void CloseHttpConnectionsOfThisThread() {
  if (t_curl.handle == nullptr || t_curl.busy) return;
  curl_easy_cleanup(t_curl.handle);
  t_curl.handle = nullptr;
}

bool PrepareTransfer(CURL* curl, const std::string& url, const TransferLimits& limits,
                     Response* response, std::string* error) {
  if (curl == nullptr) {
    *error = url + ": cannot create a libcurl handle";
    return false;
  }
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  // One sector per receive: curl's 16 KiB default costs a recv and a poll
  // per 16 KiB, which made the fetch stream CPU-bound on fast origins.
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 512L * 1024L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");  // ignore http_proxy and friends
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, limits.connect_timeout_ms);
  // A whole transfer may take long; only a stalled one fails. curl's
  // low-speed check backs up the progress watch.
  const long stall_seconds = static_cast<long>((limits.stall.count() + 999) / 1000);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, stall_seconds);
  response->stall_limit = limits.stall;
  response->last_progress = std::chrono::steady_clock::now();
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, OnProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, response);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, response->curl_error);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, OnHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, response);
  return true;
}

long ResponseCode(CURL* curl) {
  long code = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  return code;
}

OriginStatus TransferFailure(CURLcode result, const char* method, const std::string& url,
                             const Response& response, std::string* error) {
  *error = std::string(method) + " " + url + ": ";
  if (response.stalled) {
    *error += "no data moved for " + std::to_string(response.stall_limit.count()) + " ms";
    return OriginStatus::kUnreachable;
  }
  *error += response.curl_error[0] != '\0' ? response.curl_error : curl_easy_strerror(result);
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return OriginStatus::kUnreachable;
    default:
      return OriginStatus::kFailed;
  }
}

std::string EscapeUrlPath(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(path.size());
  for (unsigned char c : path) {
    // ASCII only: isalnum() would let a locale pass bytes above 127 through.
    bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved || c == '/') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string UrlForPath(const std::string& base, const std::string& path, bool directory) {
  std::string url = base + EscapeUrlPath(path);
  if (directory && url.back() != '/') url += '/';
  return url;
}

OriginStatus PerformSmallRequest(const SmallRequest& request, const TransferLimits& limits, long* code,
                                 std::string* answer, std::string* error) {
  answer->clear();
  *code = 0;
  EasyHandle easy;
  Response response;
  if (!PrepareTransfer(easy.get(), request.url, limits, &response, error)) return OriginStatus::kFailed;
  // Without "Expect: 100-continue" a server that never answers it costs no
  // extra second per request with a body.
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  for (const std::string& header : request.headers) headers = curl_slist_append(headers, header.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers);
  if (std::string(request.method) != "GET") curl_easy_setopt(easy.get(), CURLOPT_CUSTOMREQUEST, request.method);
  if (!request.body.empty()) {
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, request.body.data());
  }
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, AppendCappedBody);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, answer);
  const CURLcode result = curl_easy_perform(easy.get());
  *code = ResponseCode(easy.get());
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers);
  if (result == CURLE_WRITE_ERROR) {
    *error = std::string(request.method) + " " + request.url + ": the answer is larger than " +
             std::to_string(kMaxListingBytes >> 20) + " MiB";
    return OriginStatus::kFailed;
  }
  if (result != CURLE_OK) return TransferFailure(result, request.method, request.url, response, error);
  return OriginStatus::kOk;
}
