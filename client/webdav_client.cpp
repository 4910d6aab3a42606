#include "webdav_client.h"

namespace {

const char kListingProperties[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<D:propfind xmlns:D=\"DAV:\"><D:prop><D:resourcetype/><D:getcontentlength/>"
    "<D:getlastmodified/><D:getetag/></D:prop></D:propfind>\n";
const char kQuotaProperties[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<D:propfind xmlns:D=\"DAV:\"><D:prop><D:quota-available-bytes/><D:quota-used-bytes/>"
    "</D:prop></D:propfind>\n";

OriginStatus Answered(const char* method, const std::string& url, long code, std::string* error) {
  *error = std::string(method) + " " + url + ": HTTP " + std::to_string(code);
  return OriginStatus::kFailed;
}

OriginStatus NotFound(const char* method, const std::string& url, std::string* error) {
  *error = std::string(method) + " " + url + ": not found";
  return OriginStatus::kNotFound;
}

bool UnknownMethod(long code) { return code == 405 || code == 501; }

}  // namespace

OriginStatus WebDavClient::Propfind(const std::string& url, int depth, const char* body, long* code,
                                    std::string* answer, std::string* error) const {
  SmallRequest request;
  request.method = "PROPFIND";
  request.url = url;
  request.headers = {"Depth: " + std::to_string(depth), "Content-Type: application/xml; charset=utf-8"};
  request.body = body;
  return PerformSmallRequest(request, limits_, code, answer, error);
}

OriginStatus WebDavClient::List(const std::string& path, std::vector<OriginEntry>* entries,
                                std::string* error) const {
  entries->clear();
  const std::string url = UrlForPath(base_, path, true);
  std::string answer;
  const OriginStatus status = Multistatus(url, 1, true, &answer, error);
  if (status != OriginStatus::kOk) return status;
  std::vector<std::string> warnings;
  std::string parse_error;
  if (!ParsePropfindListing(answer, url, entries, &warnings, &parse_error)) {
    *error = url + ": " + parse_error;
    return OriginStatus::kFailed;
  }
  if (warn_) {
    for (const std::string& warning : warnings) warn_("listing " + url + ": " + warning);
  }
  return OriginStatus::kOk;
}

OriginStatus WebDavClient::Properties(const std::string& path, DavResource* resource, std::string* error) const {
  const std::string url = UrlForPath(base_, path, false);
  std::string answer;
  const OriginStatus status = Multistatus(url, 0, false, &answer, error);
  if (status != OriginStatus::kOk) return status;
  std::vector<DavResource> resources;
  std::string parse_error;
  if (!ParseMultistatus(answer, &resources, &parse_error) || resources.size() != 1) {
    *error = url + ": " + (parse_error.empty() ? "not one resource in a Depth 0 answer" : parse_error);
    return OriginStatus::kFailed;
  }
  *resource = resources[0];
  return OriginStatus::kOk;
}

OriginStatus WebDavClient::Multistatus(const std::string& url, int depth, bool listing, std::string* answer,
                                       std::string* error) const {
  long code = 0;
  const OriginStatus status = Propfind(url, depth, kListingProperties, &code, answer, error);
  if (status != OriginStatus::kOk) return status;
  if (code == 404) return NotFound("PROPFIND", url, error);
  if (UnknownMethod(code)) {
    *error = "PROPFIND " + url + (listing ? ": the server does not list with WebDAV" : ": not supported by the server") +
             " (HTTP " + std::to_string(code) + ")";
    return OriginStatus::kUnsupported;
  }
  if (code != 207) return Answered("PROPFIND", url, code, error);
  return OriginStatus::kOk;
}

OriginStatus WebDavClient::Remove(const std::string& path, std::string* error) const {
  SmallRequest request;
  request.method = "DELETE";
  request.url = UrlForPath(base_, path, false);
  long code = 0;
  std::string answer;
  const OriginStatus status = PerformSmallRequest(request, limits_, &code, &answer, error);
  if (status != OriginStatus::kOk) return status;
  if (code == 200 || code == 204) return OriginStatus::kOk;
  if (code == 404) return NotFound("DELETE", request.url, error);
  // nginx refuses a directory named without its slash with 409.
  return Answered("DELETE", request.url, code, error);
}

OriginStatus WebDavClient::MakeDirectory(const std::string& path, std::string* error) const {
  SmallRequest request;
  request.method = "MKCOL";
  request.url = UrlForPath(base_, path, true);  // nginx creates collections only by a URL ending in '/'
  long code = 0;
  std::string answer;
  const OriginStatus status = PerformSmallRequest(request, limits_, &code, &answer, error);
  if (status != OriginStatus::kOk) return status;
  if (code == 201 || code == 200) return OriginStatus::kOk;
  if (code == 405) {
    *error = "MKCOL " + request.url + ": something of that name exists already";
    return OriginStatus::kFailed;
  }
  if (code == 409) return NotFound("MKCOL", request.url + " (its parent directory)", error);
  return Answered("MKCOL", request.url, code, error);
}

// nginx deletes a directory with everything in it, so the directory is
// listed first. Something created in it between the listing and the DELETE
// goes with it: WebDAV has no "delete only if empty".
OriginStatus WebDavClient::RemoveDirectory(const std::string& path, std::string* error) const {
  const std::string url = UrlForPath(base_, path, true);
  long code = 0;
  std::string answer;
  OriginStatus status = Propfind(url, 1, kListingProperties, &code, &answer, error);
  if (status != OriginStatus::kOk) return status;
  if (code == 404) return NotFound("PROPFIND", url, error);
  if (UnknownMethod(code)) {
    *error = "PROPFIND " + url + ": cannot check that the directory is empty (HTTP " + std::to_string(code) + ")";
    return OriginStatus::kUnsupported;
  }
  if (code != 207) return Answered("PROPFIND", url, code, error);
  std::vector<OriginEntry> entries;
  std::vector<std::string> skipped;  // entries with unusable names are contents all the same
  std::string parse_error;
  if (!ParsePropfindListing(answer, url, &entries, &skipped, &parse_error)) {
    *error = url + ": " + parse_error;
    return OriginStatus::kFailed;
  }
  if (!entries.empty() || !skipped.empty()) {
    *error = url + ": the directory is not empty";
    return OriginStatus::kNotEmpty;
  }
  SmallRequest request;
  request.method = "DELETE";
  request.url = url;
  status = PerformSmallRequest(request, limits_, &code, &answer, error);
  if (status != OriginStatus::kOk) return status;
  if (code == 200 || code == 204) return OriginStatus::kOk;
  if (code == 404) return NotFound("DELETE", url, error);
  return Answered("DELETE", url, code, error);
}

OriginStatus WebDavClient::Move(const std::string& from, const std::string& to, bool directory, long* code,
                                std::string* error) const {
  SmallRequest request;
  request.method = "MOVE";
  request.url = UrlForPath(base_, from, directory);
  // A directory never replaces what is at `to`: nginx would delete a whole
  // tree there, or a file, where a rename may replace an empty directory only.
  request.headers = {"Destination: " + UrlForPath(base_, to, directory),
                     std::string("Overwrite: ") + (directory ? "F" : "T")};
  std::string answer;
  return PerformSmallRequest(request, limits_, code, &answer, error);
}

// nginx moves a directory only when both URLs end in '/', and a file only
// when neither does, so a PROPFIND asks first which `from` is. An empty
// directory at `to` is removed before a directory takes its place, as
// rename(2) does; a file or a directory with entries there stays and the
// rename fails.
OriginStatus WebDavClient::Rename(const std::string& from, const std::string& to, std::string* error) const {
  DavResource source;
  OriginStatus status = Properties(from, &source, error);
  if (status != OriginStatus::kOk) return status;
  const bool directory = source.is_collection;
  const std::string url = UrlForPath(base_, from, directory);
  long code = 0;
  status = Move(from, to, directory, &code, error);
  if (status == OriginStatus::kOk && code == 412 && directory) {
    status = RemoveDirectory(to, error);
    if (status != OriginStatus::kOk) return status;
    status = Move(from, to, directory, &code, error);
  }
  if (status != OriginStatus::kOk) return status;
  if (code == 201 || code == 204) return OriginStatus::kOk;
  if (code == 404) return NotFound("MOVE", url, error);
  // 409: a file onto a directory, or the other way round.
  return Answered("MOVE", url + " to " + to, code, error);
}

bool WebDavClient::Space(long long* used, long long* available) const {
  long code = 0;
  std::string answer, error;
  std::vector<DavResource> resources;
  if (Propfind(base_ + "/", 0, kQuotaProperties, &code, &answer, &error) != OriginStatus::kOk || code != 207 ||
      !ParseMultistatus(answer, &resources, &error) || resources.size() != 1 ||
      resources[0].quota_used < 0 || resources[0].quota_available < 0) {
    return false;
  }
  *used = resources[0].quota_used;
  *available = resources[0].quota_available;
  return true;
}
