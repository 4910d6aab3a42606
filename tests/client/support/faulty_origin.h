// An origin wrapped to fail on demand: down (every request unreachable),
// reads or uploads refused, or the next `breaks` transfers cut off (as
// unreachable) before the piece that passes `break_after` bytes.
// `before_upload` runs inside every upload; `sent` counts the bytes handed
// on to readers, `requests` the lists, stats and reads asked for.
// `silent_space`: the origin tells nothing of its space.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "origin.h"

class FaultyOrigin : public Origin {
 public:
  explicit FaultyOrigin(std::unique_ptr<Origin> inner) : inner_(std::move(inner)) {}

  std::atomic<bool> down{false}, refuse_uploads{false}, refuse_reads{false};
  std::atomic<int> breaks{0};
  long long break_after = 0;
  std::atomic<long long> sent{0};
  std::atomic<int> requests{0};
  std::atomic<int> lists{0};  // of them, directory listings
  std::atomic<bool> silent_space{false};
  std::function<void()> before_upload = [] {};

  std::string Describe() const override { return inner_->Describe(); }
  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) override {
    ++requests;
    ++lists;
    return down ? OriginStatus::kUnreachable : inner_->List(path, entries, error);
  }
  OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) override {
    ++requests;
    return down ? OriginStatus::kUnreachable : inner_->Stat(path, info, error);
  }
  OriginStatus ReadRange(const std::string& path, long long offset, long long length, const std::string& validator,
                         const ByteSink& sink, std::string* error) override {
    ++requests;
    if (down || refuse_reads) return OriginStatus::kUnreachable;
    const bool breaking = breaks > 0;
    long long passed = 0;
    const ByteSink counted = [&](const char* data, size_t size) {
      if (breaking && (passed += static_cast<long long>(size)) > break_after) return false;
      sent += static_cast<long long>(size);
      return sink(data, size);
    };
    const OriginStatus status = inner_->ReadRange(path, offset, length, validator, counted, error);
    if (!breaking || passed <= break_after) return status;
    --breaks;
    return OriginStatus::kUnreachable;
  }
  OriginStatus Upload(const std::string& path, long long size, const ByteSource& source, std::string* error) override {
    before_upload();
    if (refuse_uploads) return OriginStatus::kFailed;
    return down ? OriginStatus::kUnreachable : inner_->Upload(path, size, source, error);
  }
  OriginStatus Remove(const std::string& path, std::string* error) override { return inner_->Remove(path, error); }
  OriginStatus MakeDirectory(const std::string& path, std::string* error) override {
    return inner_->MakeDirectory(path, error);
  }
  OriginStatus RemoveDirectory(const std::string& path, std::string* error) override {
    return inner_->RemoveDirectory(path, error);
  }
  OriginStatus Rename(const std::string& from, const std::string& to, std::string* error) override {
    return inner_->Rename(from, to, error);
  }
  OriginStatus SetModificationTime(const std::string& path, long long mtime, std::string* error) override {
    return inner_->SetModificationTime(path, mtime, error);
  }
  bool Space(long long* used, long long* available) override { return !silent_space && inner_->Space(used, available); }

 private:
  const std::unique_ptr<Origin> inner_;
};
