// Directory listings of an origin, trusted for a while so that a burst of
// stat calls asks the origin once, and kept while the origin is out of reach.
//
// Thread safety: every operation may be called from many threads. The lock
// is a leaf: it may be taken under the drive's files_lock_, and the origin
// is never asked while it is held.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "origin.h"

class ListingCache {
 public:
  // `origin` must outlive the cache. A listing younger than `ttl_ms` is
  // answered without asking the origin.
  ListingCache(Origin* origin, long long ttl_ms) : origin_(origin), ttl_(ttl_ms) {}
  ListingCache(const ListingCache&) = delete;
  ListingCache& operator=(const ListingCache&) = delete;

  // The entries of `directory`: 0, -ENOENT, or -EIO when the origin cannot
  // be asked and never listed it before.
  int List(const std::string& directory, std::vector<OriginEntry>* entries);
  // The next List of `directory` asks the origin.
  void Forget(const std::string& directory);
  // Forgets `directory` and every directory beneath it (it was renamed or removed).
  void ForgetTree(const std::string& directory);

 private:
  struct Listing {
    std::chrono::steady_clock::time_point taken;
    std::vector<OriginEntry> entries;
  };

  Origin* const origin_;
  const std::chrono::milliseconds ttl_;
  std::mutex lock_;
  std::map<std::string, Listing> listings_;  // protected by lock_
};
