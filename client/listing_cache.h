// Directory listings of an origin, trusted for a while so that a burst of
// stat calls asks the origin once, and kept while the origin is out of reach.
// Within that while a listed file's size and validator are trusted too: an
// open asks the origin nothing.
//
// nginx lists no name that starts with a dot, yet tools make such files and
// directories all the time (.git, rsync's and editors' temporary files). The
// ones this volume made, renamed or found by name are remembered and added
// to their directory's listings, each asked about by name (Stat) when the
// listing is taken; one found gone is forgotten. Those made elsewhere stay
// unlisted until looked up by name.
//
// Thread safety: every operation may be called from many threads. The lock
// is a leaf: it may be taken under the drive's files_lock_, and the origin
// is never asked while it is held.
#pragma once

#include <map>
#include <mutex>
#include <set>
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

  // The entry of `path` in its parent's listing; a name that starts with a
  // dot and is not listed is asked about by name. 0, -ENOENT, or -EIO when
  // the origin cannot tell. `taken`, when given, is when the origin told.
  int Find(const std::string& path, OriginEntry* entry, DriveTime* taken = nullptr);
  // `path` was made or stored on the origin: its parent is listed afresh.
  void Added(const std::string& path);
  // The origin told `info` of `path` at `told`: a listing of its parent that
  // is kept and was taken no later gets the entry as it now is, without
  // asking again (a later listing is left as it is).
  void Stored(const std::string& path, const OriginFileInfo& info, DriveTime told);
  // True when a listing of `directory` younger than the window lacks `name`,
  // which does not start with a dot (those the origin may not list). Never
  // asks the origin.
  bool FreshlyAbsent(const std::string& directory, const std::string& name);
  // `path` (and, for a directory, everything beneath it) is gone.
  void Removed(const std::string& path);
  // `from` (and everything beneath it) is now at `to`.
  void Moved(const std::string& from, const std::string& to);

 private:
  struct Listing {
    DriveTime taken;
    std::vector<OriginEntry> entries;
  };

  // Adds the remembered dot names of `directory` that `entries` lacks.
  void AddHidden(const std::string& directory, std::vector<OriginEntry>* entries);
  void RememberIfHidden(const std::string& path);  // REQUIRES: lock_ held

  Origin* const origin_;
  const std::chrono::milliseconds ttl_;
  const DriveClock clock_;
  std::mutex lock_;
  std::map<std::string, Listing> listings_;  // protected by lock_
  std::set<std::string> hidden_;             // paths of remembered dot names; protected by lock_
};
