// Settings for cache files under test, changeable at any time.
#pragma once

#include <atomic>
#include <mutex>

#include "cache/default_settings.h"
#include "korvcache.h"

class FakeConfig : public ICacheConfig {
 public:
  unsigned long long GetQuota() override { return quota_; }
  _CACHECONFIG GetConfig() override {
    std::lock_guard<std::mutex> guard(lock_);
    return config_;
  }
  void Set(const _CACHECONFIG& config) {
    std::lock_guard<std::mutex> guard(lock_);
    config_ = config;
  }
  void SetQuota(unsigned long long quota) { quota_ = quota; }

 private:
  std::mutex lock_;
  _CACHECONFIG config_ = kDefaultCacheConfig;  // guarded by lock_
  std::atomic<unsigned long long> quota_{1ull << 30};
};
