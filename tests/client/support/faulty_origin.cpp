#include "client/support/faulty_origin.h"

namespace {

OriginStatus Down(std::string* error) {
  *error = "connection refused (test)";
  return OriginStatus::kUnreachable;
}

}  // namespace

OriginStatus FaultyOrigin::List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) {
  if (down) return Down(error);
  return inner_->List(path, entries, error);
}

OriginStatus FaultyOrigin::Stat(const std::string& path, OriginFileInfo* info, std::string* error) {
  if (down) return Down(error);
  return inner_->Stat(path, info, error);
}

OriginStatus FaultyOrigin::ReadRange(const std::string& path, long long offset, long long length,
                                     const std::string& validator, const ByteSink& sink, std::string* error) {
  if (down) return Down(error);
  ++reads;
  if (drops.load() > 0) {
    --drops;
    const long long limit = drop_after.load();
    const OriginStatus status =
        inner_->ReadRange(path, offset, std::min(length, limit), validator, sink, error);
    if (status != OriginStatus::kOk || limit >= length) return status;
    *error = "connection reset mid-body (test)";
    return OriginStatus::kUnreachable;
  }
  return inner_->ReadRange(path, offset, length, validator, sink, error);
}

OriginStatus FaultyOrigin::Upload(const std::string& path, long long size, const ByteSource& source,
                                  std::string* error) {
  if (down) return Down(error);
  if (refuse_uploads) {
    *error = "HTTP 507 (test)";
    return OriginStatus::kFailed;
  }
  return inner_->Upload(path, size, source, error);
}
