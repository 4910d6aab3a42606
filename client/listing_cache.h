// Directory listings of an origin, trusted for a while so that a burst of
// stat calls asks the origin once, and kept while the origin is out of reach.
// Within that while a listed file's size and validator are trusted too: an
// open asks the origin nothing.
//
// Thread safety: every operation may be called from many threads. The lock
// is a leaf: it may be taken under the drive's files_lock_, and the origin
// is never asked while it is held.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "drive_clock.h"
#include "origin.h"

class ListingCache {
 public:
  // `origin` must outlive the cache. A listing younger than `ttl_ms` on
  // `clock` is answered without asking the origin.
  ListingCache(Origin* origin, long long ttl_ms, DriveClock clock)
      : origin_(origin), ttl_(ttl_ms), clock_(std::move(clock)) {}
  ListingCache(const ListingCache&) = delete;
  ListingCache& operator=(const ListingCache&) = delete;

  // The entries of `directory`: 0, -ENOENT, or -EIO when the origin cannot
  // be asked and never listed it before. `taken`, when given, is when the
  // origin was asked for the listing answered.
  int List(const std::string& directory, std::vector<OriginEntry>* entries, DriveTime* taken = nullptr);
  // The entry `name` of a listing of `directory` younger than the window,
  // and when that listing was asked for; false when there is none. Never
  // asks the origin.
  bool FreshEntry(const std::string& directory, const std::string& name, OriginEntry* entry, DriveTime* taken);
  // The next List of `directory` asks the origin.
  void Forget(const std::string& directory);
  // Forgets `directory` and every directory beneath it (it was renamed or removed).
  void ForgetTree(const std::string& directory);

 private:
  struct Listing {
    DriveTime taken;
    std::vector<OriginEntry> entries;
  };

  Origin* const origin_;
  const std::chrono::milliseconds ttl_;
  const DriveClock clock_;
  std::mutex lock_;
  std::map<std::string, Listing> listings_;  // protected by lock_
};
