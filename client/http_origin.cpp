#include "http_origin.h"

#include <algorithm>
#include <atomic>
#include <cctype>

#include "http_listing.h"
#include "http_transfer.h"
#include "webdav_client.h"

namespace {

size_t DiscardBody(char*, size_t size, size_t count, void*) { return size * count; }

// The first byte position of "bytes 100-199/1000".
bool ContentRangeStart(const std::string& value, long long* first) {
  if (value.compare(0, 5, "bytes") != 0) return false;
  size_t pos = value.find_first_not_of(" =", 5);
  if (pos == std::string::npos || !isdigit(static_cast<unsigned char>(value[pos]))) return false;
  long long result = 0;
  for (; pos < value.size() && isdigit(static_cast<unsigned char>(value[pos])); ++pos) {
    if (result > (1LL << 55)) return false;
    result = result * 10 + (value[pos] - '0');
  }
  if (pos >= value.size() || value[pos] != '-') return false;
  *first = result;
  return true;
}

// A validator from Stat is the ETag when the server sent one, else the
// Last-Modified date; compare it with the same header of this response. A
// response without that header says nothing either way.
bool ValidatorDiffers(const std::string& validator, const Response& response) {
  if (validator.empty()) return false;
  const std::string& current = LooksLikeEtag(validator) ? response.etag : response.last_modified;
  return !current.empty() && current != validator;
}

struct RangeRead {
  CURL* curl = nullptr;
  const Response* response = nullptr;
  long long offset = 0;
  long long length = 0;
  const std::string* validator = nullptr;
  const ByteSink* sink = nullptr;

  enum class Stop { kNone, kComplete, kChanged, kWrongRange, kSinkRefused };
  Stop stop = Stop::kNone;
  bool decided = false;
  bool discard = false;     // an error page: nothing of it reaches the sink
  long long skip = 0;       // bytes before `offset` in a whole-file answer
  long long body_seen = 0;  // bytes of the body so far, skipped ones included
  long long delivered = 0;
};

// Runs once the headers are complete, before any body byte reaches the sink,
// so that a changed or misplaced answer delivers nothing.
bool DecideRangeRead(RangeRead* read) {
  read->decided = true;
  long code = ResponseCode(read->curl);
  if (code == 206) {
    long long first = -1;
    if (!ContentRangeStart(read->response->content_range, &first) || first != read->offset) {
      read->stop = RangeRead::Stop::kWrongRange;
      return false;
    }
  } else if (code == 200) {
    read->skip = read->offset;  // the server ignored Range and sends the whole file
  } else {
    read->discard = true;
    return true;
  }
  if (ValidatorDiffers(*read->validator, *read->response)) {
    read->stop = RangeRead::Stop::kChanged;
    return false;
  }
  return true;
}

size_t OnRangeBody(char* data, size_t size, size_t count, void* user) {
  RangeRead* read = static_cast<RangeRead*>(user);
  const size_t bytes = size * count;
  if (!read->decided && !DecideRangeRead(read)) return 0;
  if (read->discard) return bytes;
  read->body_seen += static_cast<long long>(bytes);
  size_t dropped = static_cast<size_t>(std::min<long long>(read->skip, bytes));
  read->skip -= static_cast<long long>(dropped);
  size_t wanted = static_cast<size_t>(
      std::min<long long>(read->length - read->delivered, bytes - dropped));
  if (wanted > 0) {
    read->delivered += static_cast<long long>(wanted);
    if (!(*read->sink)(data + dropped, wanted)) {
      read->stop = RangeRead::Stop::kSinkRefused;
      return 0;
    }
  }
  if (read->delivered == read->length) {
    // Cut a body that goes on past the range (a whole-file answer), but let
    // one that ends here finish, so the connection stays reusable.
    curl_off_t total = -1;
    curl_easy_getinfo(read->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &total);
    if (total < 0 || read->body_seen < total) {
      read->stop = RangeRead::Stop::kComplete;
      return 0;
    }
  }
  return bytes;
}

struct UploadSource {
  const ByteSource* source = nullptr;
  long long size = 0;
  long long offset = 0;
  std::string failure;
};

size_t OnUploadRead(char* buffer, size_t size, size_t count, void* user) {
  UploadSource* upload = static_cast<UploadSource*>(user);
  size_t room = static_cast<size_t>(std::min<long long>(upload->size - upload->offset,
                                                        static_cast<long long>(size * count)));
  if (room == 0) return 0;
  long long got = (*upload->source)(upload->offset, buffer, room);
  if (got <= 0 || got > static_cast<long long>(room)) {
    // Aborting makes curl drop the connection mid-body, so the server never
    // completes the PUT and keeps the old file.
    upload->failure = got == 0 ? "the data to upload ended early" : "reading the data to upload failed";
    upload->failure += " at offset " + std::to_string(upload->offset);
    return CURL_READFUNC_ABORT;
  }
  upload->offset += got;
  return static_cast<size_t>(got);
}

// curl rewinds the body when it resends a request on a reused connection that
// turned out to be closed by the server.
int OnUploadSeek(void* user, curl_off_t offset, int origin) {
  UploadSource* upload = static_cast<UploadSource*>(user);
  if (origin != SEEK_SET || offset < 0 || offset > upload->size) return CURL_SEEKFUNC_FAIL;
  upload->offset = offset;
  return CURL_SEEKFUNC_OK;
}

class HttpOrigin : public Origin {
 public:
  HttpOrigin(std::string url, std::string base, const OriginOptions& options)
      : url_(std::move(url)),
        base_(std::move(base)),
        limits_{static_cast<long>(std::min<long long>(options.timeout_ms, 5000)),
                std::chrono::milliseconds(options.timeout_ms)},
        dav_(base_, limits_, options.warn) {}

  std::string Describe() const override { return url_; }

  // PROPFIND; a server that does not know it (nginx without the dav-ext
  // module) is asked for its JSON autoindex instead, from then on directly.
  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries,
                    std::string* error) override {
    if (!webdav_listing_refused_.load(std::memory_order_relaxed)) {
      const OriginStatus status = dav_.List(path, entries, error);
      if (status != OriginStatus::kUnsupported) return status;
      webdav_listing_refused_.store(true, std::memory_order_relaxed);
    }
    entries->clear();
    SmallRequest request;
    request.url = UrlFor(path, true);
    const std::string& url = request.url;
    long code = 0;
    std::string body;
    const OriginStatus status = PerformSmallRequest(request, limits_, &code, &body, error);
    if (status != OriginStatus::kOk) return status;
    if (code == 404) return NotFound(url, error);
    if (code != 200) return Fail(url, "HTTP " + std::to_string(code), error);
    std::string parse_error;
    if (!ParseJsonListing(body, entries, &parse_error)) return Fail(url, parse_error, error);
    return OriginStatus::kOk;
  }

  OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) override {
    *info = OriginFileInfo();
    EasyHandle easy;
    Response response;
    const std::string url = UrlFor(path, false);
    if (!PrepareTransfer(easy.get(), url, limits_, &response, error)) return OriginStatus::kFailed;
    curl_easy_setopt(easy.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_FILETIME, 1L);
    CURLcode result = curl_easy_perform(easy.get());
    if (result != CURLE_OK) return TransferFailure(result, "HEAD", url, response, error);
    long code = ResponseCode(easy.get());
    if (code == 200 && !path.empty() && path.back() == '/') {
      info->is_directory = true;  // "/" answers its listing, which has no useful size
    } else if (code == 200) {
      curl_off_t size = -1;
      curl_off_t mtime = -1;
      curl_easy_getinfo(easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
      curl_easy_getinfo(easy.get(), CURLINFO_FILETIME_T, &mtime);
      info->size = size > 0 ? size : 0;
      info->mtime = mtime > 0 ? mtime : 0;
      info->validator = response.etag.empty() ? response.last_modified : response.etag;
    } else if ((code == 301 || code == 302) && !response.location.empty() &&
               response.location.back() == '/') {
      info->is_directory = true;  // how nginx answers a directory named without its slash
    } else if (code == 404) {
      return NotFound(url, error);
    } else if (code == 403 || code == 405) {
      return StatByWebDav(path, url, code, info, error);
    } else {
      return Fail(url, "HTTP " + std::to_string(code), error);
    }
    return OriginStatus::kOk;
  }

  OriginStatus ReadRange(const std::string& path, long long offset, long long length,
                         const std::string& validator, const ByteSink& sink,
                         std::string* error) override {
    if (offset < 0 || length < 0) return Fail(path, "negative offset or length", error);
    if (length == 0) return OriginStatus::kOk;
    EasyHandle easy;
    Response response;
    const std::string url = UrlFor(path, false);
    if (!PrepareTransfer(easy.get(), url, limits_, &response, error)) return OriginStatus::kFailed;
    RangeRead read;
    read.curl = easy.get();
    read.response = &response;
    read.offset = offset;
    read.length = length;
    read.validator = &validator;
    read.sink = &sink;
    const std::string range = std::to_string(offset) + "-" + std::to_string(offset + length - 1);
    curl_easy_setopt(easy.get(), CURLOPT_RANGE, range.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, OnRangeBody);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &read);
    CURLcode result = curl_easy_perform(easy.get());
    // An answer without a body never reached the write callback.
    if (result == CURLE_OK && !read.decided) DecideRangeRead(&read);
    switch (read.stop) {
      case RangeRead::Stop::kComplete:
        return OriginStatus::kOk;
      case RangeRead::Stop::kChanged:
        *error = url + ": the file changed (validator " + validator + " is now " +
                 (response.etag.empty() ? response.last_modified : response.etag) + ")";
        return OriginStatus::kChanged;
      case RangeRead::Stop::kWrongRange:
        return Fail(url, "asked for bytes from " + std::to_string(offset) +
                             ", server answered Content-Range \"" + response.content_range + "\"",
                    error);
      case RangeRead::Stop::kSinkRefused:
        if (read.delivered == length) return OriginStatus::kOk;
        return Fail(url, "the reader stopped the transfer", error);
      case RangeRead::Stop::kNone:
        break;
    }
    if (result != CURLE_OK) {
      if (read.delivered == length) return OriginStatus::kOk;
      return TransferFailure(result, "GET", url, response, error);
    }
    long code = ResponseCode(easy.get());
    if (code == 200 || code == 206) return OriginStatus::kOk;
    if (code == 404) return NotFound(url, error);
    if (code == 416) return Fail(url, "range not satisfiable (HTTP 416) at offset " +
                                          std::to_string(offset), error);
    return Fail(url, "HTTP " + std::to_string(code), error);
  }

  OriginStatus Upload(const std::string& path, long long size, const ByteSource& source,
                      std::string* error) override {
    return Put(path, size, source, std::string(), error);
  }

  // nginx's dav module gives a stored file the time of the request's Date
  // header: the one way to set a time that it has.
  OriginStatus UploadWithTime(const std::string& path, long long size, const ByteSource& source, long long mtime,
                              std::string* error) override {
    const std::string date = FormatHttpDate(mtime);
    if (date.empty()) {
      *error = "no HTTP date carries the time " + std::to_string(mtime);
      return OriginStatus::kUnsupported;
    }
    return Put(path, size, source, "Date: " + date, error);
  }

  // A PUT of `size` bytes from `source`, with `date_header` when not empty.
  OriginStatus Put(const std::string& path, long long size, const ByteSource& source,
                   const std::string& date_header, std::string* error) {
    if (size < 0) return Fail(path, "negative size", error);
    EasyHandle easy;
    Response response;
    const std::string url = UrlFor(path, false);
    if (!PrepareTransfer(easy.get(), url, limits_, &response, error)) return OriginStatus::kFailed;
    UploadSource upload;
    upload.source = &source;
    upload.size = size;
    // Without "Expect: 100-continue" a server that never answers it costs no
    // extra second per upload.
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    if (!date_header.empty()) headers = curl_slist_append(headers, date_header.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy.get(), CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
    curl_easy_setopt(easy.get(), CURLOPT_READFUNCTION, OnUploadRead);
    curl_easy_setopt(easy.get(), CURLOPT_READDATA, &upload);
    curl_easy_setopt(easy.get(), CURLOPT_SEEKFUNCTION, OnUploadSeek);
    curl_easy_setopt(easy.get(), CURLOPT_SEEKDATA, &upload);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, DiscardBody);
    CURLcode result = curl_easy_perform(easy.get());
    long code = ResponseCode(easy.get());
    curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers);
    if (!upload.failure.empty()) return Fail(url, upload.failure, error);
    if (result != CURLE_OK) return TransferFailure(result, "PUT", url, response, error);
    if (code == 200 || code == 201 || code == 204) return OriginStatus::kOk;
    return Fail(url, "HTTP " + std::to_string(code), error);
  }

  OriginStatus Remove(const std::string& path, std::string* error) override { return dav_.Remove(path, error); }
  OriginStatus MakeDirectory(const std::string& path, std::string* error) override {
    return dav_.MakeDirectory(path, error);
  }
  OriginStatus RemoveDirectory(const std::string& path, std::string* error) override {
    return dav_.RemoveDirectory(path, error);
  }
  OriginStatus Rename(const std::string& from, const std::string& to, std::string* error) override {
    return dav_.Rename(from, to, error);
  }
  // nginx cannot PROPPATCH; only an upload sets a time (UploadWithTime).
  OriginStatus SetModificationTime(const std::string&, long long, std::string* error) override {
    *error = "not supported by this origin";
    return OriginStatus::kUnsupported;
  }
  bool Space(long long* used, long long* available) override { return dav_.Space(used, available); }

 private:
  std::string UrlFor(const std::string& path, bool directory) const { return UrlForPath(base_, path, directory); }

  // A directory that nginx neither indexes nor lists answers HEAD with 403
  // (405 from other servers); PROPFIND tells what it is.
  OriginStatus StatByWebDav(const std::string& path, const std::string& url, long head_code, OriginFileInfo* info,
                            std::string* error) {
    DavResource resource;
    const OriginStatus status = dav_.Properties(path, &resource, error);
    if (status == OriginStatus::kUnsupported) return Fail(url, "HTTP " + std::to_string(head_code), error);
    if (status != OriginStatus::kOk) return status;
    info->is_directory = resource.is_collection;
    info->size = resource.is_collection || resource.size < 0 ? 0 : resource.size;
    info->mtime = resource.mtime;
    info->validator = ValidatorOf(resource);
    return OriginStatus::kOk;
  }

  static OriginStatus Fail(const std::string& where, const std::string& why, std::string* error) {
    *error = where + ": " + why;
    return OriginStatus::kFailed;
  }

  static OriginStatus NotFound(const std::string& url, std::string* error) {
    *error = url + ": not found";
    return OriginStatus::kNotFound;
  }

  const std::string url_;
  const std::string base_;  // url_ without its trailing slashes
  const TransferLimits limits_;
  const WebDavClient dav_;
  std::atomic<bool> webdav_listing_refused_{false};
};

}  // namespace

std::unique_ptr<Origin> MakeHttpOrigin(const std::string& url, const OriginOptions& options,
                                       std::string* error) {
  std::string scheme = url.substr(0, url.find("://"));
  for (char& c : scheme) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (scheme != "http" && scheme != "https") {
    *error = "\"" + url + "\" is not an http:// or https:// URL";
    return nullptr;
  }
  if (options.timeout_ms <= 0) {
    *error = "the HTTP time-out must be positive";
    return nullptr;
  }
  CURLU* parsed = curl_url();
  if (parsed == nullptr) {
    *error = "out of memory";
    return nullptr;
  }
  std::string problem;
  CURLUcode code = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0);
  if (code != CURLUE_OK) {
    problem = curl_url_strerror(code);
  } else {
    char* part = nullptr;
    if (curl_url_get(parsed, CURLUPART_HOST, &part, 0) != CURLUE_OK || part == nullptr ||
        *part == '\0') {
      problem = "no host";
    }
    curl_free(part);
    for (CURLUPart unwanted : {CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
      part = nullptr;
      if (curl_url_get(parsed, unwanted, &part, 0) == CURLUE_OK) problem = "a query or fragment";
      curl_free(part);
    }
  }
  curl_url_cleanup(parsed);
  if (!problem.empty()) {
    *error = "\"" + url + "\" is not a usable URL: " + problem;
    return nullptr;
  }
  std::string base = url;
  while (!base.empty() && base.back() == '/') base.pop_back();
  return std::make_unique<HttpOrigin>(url, base, options);
}
