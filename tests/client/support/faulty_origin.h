// Wraps an origin and makes it fail on demand: down (every request is
// unreachable), uploads refused, or a transient drop after some bytes of the
// next reads. Counts the reads it passes on.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "origin.h"

class FaultyOrigin : public Origin {
 public:
  explicit FaultyOrigin(std::unique_ptr<Origin> inner) : inner_(std::move(inner)) {}

  std::atomic<bool> down{false};
  std::atomic<bool> refuse_uploads{false};
  // The next `drops` reads deliver at most `drop_after` bytes, then fail as
  // a connection dropped mid-body would.
  std::atomic<int> drops{0};
  std::atomic<long long> drop_after{0};
  std::atomic<int> reads{0};

  std::string Describe() const override { return inner_->Describe(); }
  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) override;
  OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) override;
  OriginStatus ReadRange(const std::string& path, long long offset, long long length, const std::string& validator,
                         const ByteSink& sink, std::string* error) override;
  OriginStatus Upload(const std::string& path, long long size, const ByteSource& source,
                      std::string* error) override;

 private:
  std::unique_ptr<Origin> inner_;
};
