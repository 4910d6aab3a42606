// The WebDAV answers an HTTP origin reads: a 207 Multi-Status body (RFC 4918)
// with the properties of each resource, and the directory listing made of it.
// The body comes from the server and is treated as hostile: no DTD or entity
// is loaded or expanded, nothing is fetched over the network, libxml2 keeps
// its default limits on nesting (256 levels) and text size, and whatever does
// not parse is an error, never a crash.
#pragma once

#include <string>
#include <vector>

#include "origin.h"

// One <response> of a multistatus, with the properties the origin asks for.
struct DavResource {
  std::string href;  // as sent, percent-encoded; empty when there was none
  bool is_collection = false;
  long long size = -1;  // getcontentlength; -1 when absent or not a number
  long long mtime = 0;  // getlastmodified; 0 when absent or not an HTTP date
  std::string etag;
  std::string last_modified;  // getlastmodified as sent
  long long quota_used = -1;  // RFC 4331 quota-used-bytes; -1 when absent
  long long quota_available = -1;
};

// What the resource's version is told by: its ETag, else its Last-Modified
// date, as a HEAD's answer is read.
std::string ValidatorOf(const DavResource& resource);

// Parses a 207 body. Properties reported with a status other than 2xx are
// left out. Returns false with `error` set when `body` is not a multistatus.
bool ParseMultistatus(const std::string& body, std::vector<DavResource>* resources, std::string* error);

// The path of an http(s) URL or an href, still percent-encoded:
// "http://h:80/a%20b/" and "/a%20b/" both give "/a%20b/".
std::string UrlPathOf(const std::string& url);

// "%41b" -> "Ab". False for a '%' not followed by two hex digits, and for an
// encoded NUL.
bool PercentDecode(const std::string& text, std::string* decoded);

// The entries of a Depth 1 answer for the directory at `directory_url`,
// which itself is left out. An entry that cannot become a file name (no
// href, a bad escape, a name over 255 bytes, one holding '/', "." or "..")
// or a file without a size is skipped with a line in `warnings`; the others
// are listed. Returns false with `error` set when `body` does not parse or
// names `directory_url` as a file.
bool ParsePropfindListing(const std::string& body, const std::string& directory_url,
                          std::vector<OriginEntry>* entries, std::vector<std::string>* warnings,
                          std::string* error);
