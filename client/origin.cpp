#include "origin.h"

#include <strings.h>

#include <cstring>

#include "directory_origin.h"
#include "http_origin.h"

bool IsHttpUrl(const std::string& text) {
  auto starts = [&](const char* scheme) { return strncasecmp(text.c_str(), scheme, strlen(scheme)) == 0; };
  return starts("http://") || starts("https://");
}

bool LooksLikeEtag(const std::string& validator) {
  return !validator.empty() && (validator[0] == '"' || validator.compare(0, 2, "W/") == 0);
}

OriginFileInfo VersionOf(const OriginEntry& entry) {
  OriginFileInfo info;
  info.is_directory = entry.is_directory;
  info.size = entry.size;
  info.mtime = entry.mtime;
  info.validator = entry.validator;
  return info;
}

std::string KeptVersionOf(const OriginFileInfo& info) {
  if (!info.validator.empty()) return info.validator;
  return std::to_string(info.size) + ":" + std::to_string(info.mtime);
}

bool SameVersion(const OriginFileInfo& a, const OriginFileInfo& b) {
  if (a.is_directory != b.is_directory || a.size != b.size) return false;
  if (LooksLikeEtag(a.validator) == LooksLikeEtag(b.validator)) return a.validator == b.validator;
  return a.mtime != 0 && a.mtime == b.mtime;
}

const char* OriginStatusText(OriginStatus status) {
  switch (status) {
    case OriginStatus::kOk: return "ok";
    case OriginStatus::kNotFound: return "not found";
    case OriginStatus::kUnreachable: return "unreachable";
    case OriginStatus::kChanged: return "changed on the origin";
    case OriginStatus::kNotEmpty: return "directory not empty";
    case OriginStatus::kUnsupported: return "not supported by the origin";
    case OriginStatus::kFailed: return "failed";
  }
  return "unknown";
}

std::unique_ptr<Origin> MakeOrigin(const std::string& where, const OriginOptions& options,
                                   std::string* error) {
  if (IsHttpUrl(where)) return MakeHttpOrigin(where, options, error);
  if (where.find("://") != std::string::npos) {
    *error = "unsupported origin " + where + " (use an http:// URL or a directory)";
    return nullptr;
  }
  return MakeDirectoryOrigin(where, options, error);
}
