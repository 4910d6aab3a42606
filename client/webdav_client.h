// The WebDAV methods (RFC 4918) of an HTTP origin, as nginx's dav module
// (PUT DELETE MKCOL COPY MOVE) and dav-ext module (PROPFIND) answer them:
// listings and the changes to files and directories that a mounted volume
// makes besides writing file contents.
//
// nginx leaves names that start with a dot out of every listing, its own and
// the dav-ext module's: such files can be read, written and removed by name,
// but a directory that holds nothing else looks empty to RemoveDirectory and
// Rename, and is removed with them.
//
// Thread safety: every operation may be called from many threads at once.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "http_transfer.h"
#include "origin.h"
#include "webdav_listing.h"

class WebDavClient {
 public:
  // `base` is the origin's URL without trailing slashes; `warn` (may be
  // empty) receives one line per listing entry that had to be skipped.
  WebDavClient(std::string base, TransferLimits limits, std::function<void(const std::string&)> warn)
      : base_(std::move(base)), limits_(limits), warn_(std::move(warn)) {}

  // PROPFIND with Depth 1. kUnsupported when the server does not know the
  // method (nginx without the dav-ext module answers 405), so that the
  // caller can list another way.
  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) const;
  // PROPFIND with Depth 0: what the server says about `path` itself.
  OriginStatus Properties(const std::string& path, DavResource* resource, std::string* error) const;

  OriginStatus Remove(const std::string& path, std::string* error) const;
  OriginStatus MakeDirectory(const std::string& path, std::string* error) const;
  OriginStatus RemoveDirectory(const std::string& path, std::string* error) const;
  OriginStatus Rename(const std::string& from, const std::string& to, std::string* error) const;
  bool Space(long long* used, long long* available) const;

 private:
  // A PROPFIND that must be answered with a multistatus (207): kOk with its
  // body, else the status and error a listing (`listing`) or a lookup of
  // one resource reports.
  OriginStatus Multistatus(const std::string& url, int depth, bool listing, std::string* answer,
                           std::string* error) const;
  OriginStatus Propfind(const std::string& url, int depth, const char* body, long* code, std::string* answer,
                        std::string* error) const;
  OriginStatus Move(const std::string& from, const std::string& to, bool directory, long* code,
                    std::string* error) const;

  const std::string base_;
  const TransferLimits limits_;
  const std::function<void(const std::string&)> warn_;
};
