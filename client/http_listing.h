// Text formats an HTTP origin has to understand besides the file bytes: the
// JSON directory listing of nginx's autoindex module and HTTP dates.
#pragma once

#include <string>
#include <vector>

#include "origin.h"

// Parses an RFC 1123 date ("Sun, 06 Nov 1994 08:49:37 GMT") into seconds
// since the epoch. Returns false for anything else.
bool ParseHttpDate(const std::string& text, long long* seconds);
// The same form of `seconds` since the epoch; empty outside years 1970-9999.
std::string FormatHttpDate(long long seconds);

// Parses the answer of `autoindex_format json`: an array of objects with
// "name", "type" ("file", "directory" or "other"), "mtime" and, for files,
// "size". Entries that are neither files nor directories are left out, as are
// "." and "..". Returns false with `error` set when `body` is not such a list.
bool ParseJsonListing(const std::string& body, std::vector<OriginEntry>* entries,
                      std::string* error);
