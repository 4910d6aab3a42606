// An origin on an HTTP server: file data from Range requests, uploads are
// PUTs (nginx's WebDAV module stores them whole or not at all), listings and
// the changes to names and directories are WebDAV methods (webdav_client.h).
// A server that does not answer PROPFIND is listed through nginx's
// `autoindex_format json` instead.
#pragma once

#include <memory>
#include <string>

#include "origin.h"

// `url` is "http://host:port" optionally followed by a path prefix; the
// remote path "/a/b" is then served at url + "/a/b". Nothing is sent over the
// network here. Returns null with `error` set when `url` is not usable.
//
// The program must have called curl_global_init() before the first request.
std::unique_ptr<Origin> MakeHttpOrigin(const std::string& url, const OriginOptions& options,
                                       std::string* error);

// Each thread keeps its connections to HTTP origins open until it exits. The
// main thread exits after main() returns, too late for curl_global_cleanup();
// a program calls this on the main thread first. Later requests of the thread
// open new connections.
void CloseHttpConnectionsOfThisThread();
