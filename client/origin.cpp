#include "origin.h"

#include "directory_origin.h"
#include "http_origin.h"

const char* OriginStatusText(OriginStatus status) {
  switch (status) {
    case OriginStatus::kOk: return "ok";
    case OriginStatus::kNotFound: return "not found";
    case OriginStatus::kUnreachable: return "unreachable";
    case OriginStatus::kChanged: return "changed on the origin";
    case OriginStatus::kFailed: return "failed";
  }
  return "unknown";
}

std::unique_ptr<Origin> MakeOrigin(const std::string& where, const OriginOptions& options,
                                   std::string* error) {
  if (where.rfind("http://", 0) == 0) return MakeHttpOrigin(where, options, error);
  if (where.find("://") != std::string::npos) {
    *error = "unsupported origin " + where + " (use an http:// URL or a directory)";
    return nullptr;
  }
  return MakeDirectoryOrigin(where, options, error);
}
