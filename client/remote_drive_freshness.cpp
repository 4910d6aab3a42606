// When a remote drive asks its origin whether a file changed, as network file
// systems cache attributes: what the drive learnt of a file's version (from
// an open, an upload, or its directory's listing) is trusted for the window
// (DriveOptions::listing_ttl_ms), so a burst of opens makes no request.
// Beyond it, an open asks (Stat), and a reader that reaches the end of what
// the drive knows asks once, so that a file growing on the origin (tail -f)
// is read on to its new end.
#include <cerrno>

#include "remote_drive.h"

OriginStatus RemoteDrive::CurrentVersion(const std::string& path, bool ask_origin, OriginFileInfo* info,
                                         DriveTime* confirmed, std::string* error) {
  const DriveTime now = Now();
  const std::chrono::milliseconds window(options_.listing_ttl_ms);
  if (!ask_origin) {
    DriveTime known;
    OriginFileInfo seen;
    const std::shared_ptr<RemoteFile> file = FindFile(path);
    if (file && file->on_origin) seen = file->Seen(&known);
    if (known != DriveTime() && now - known < window) {
      *info = seen;
      *confirmed = known;
      return OriginStatus::kOk;
    }
    // A listing without validators cannot tell a new version from the old.
    OriginEntry entry;
    DriveTime taken;
    auto listed = [&] {
      return listings_.FreshEntry(ParentOf(path), NameOf(path), &entry, &taken) && taken > known &&
             (entry.is_directory || !entry.validator.empty());
    };
    bool found = listed();
    // A reader walking the directory opens one file after another: one
    // listing past the window answers for all of them, where each would cost
    // a Stat of its own.
    if (!found && read_ahead_ && read_ahead_->Walking(ParentOf(path))) {
      std::vector<OriginEntry> entries;
      DriveTime listed_at;
      const int status = listings_.List(ParentOf(path), &entries, &listed_at);
      // The listing kept from before: the origin did not answer, nor would a Stat.
      if (status == 0 && now - listed_at >= window) {
        *confirmed = now;
        *error = "its directory could not be listed";
        return OriginStatus::kUnreachable;
      }
      found = status == 0 && listed();
    }
    if (found) {
      *info = VersionOf(entry);
      *confirmed = taken;
      return OriginStatus::kOk;
    }
    // A name its directory's listing lacks within the window is not there,
    // as a lookup would have answered: creating a file asks nothing more.
    if (known == DriveTime() && listings_.FreshlyAbsent(ParentOf(path), NameOf(path))) {
      *confirmed = now;
      *error = "not in the listing of its directory";
      return OriginStatus::kNotFound;
    }
  }
  *confirmed = now;
  return origin_->Stat(path, info, error);
}

bool RemoteDrive::MayHaveChanged(RemoteFile* file, long long got, size_t size, long long offset) {
  if (file->writable || file->dirty || !file->on_origin) return false;  // the local copy wins
  if (got < 0) return got == -EIO && file->fetch->SawChange();
  const long long known = file->size.load(std::memory_order_relaxed);
  if (offset + static_cast<long long>(size) <= known) return false;
  // A read wholly past the end comes from a reader told of a larger file
  // (by a listing, or tail's own loop); one that only reaches past it is a
  // reader at the end, which the kernel's page reads make of any reader:
  // it asks only once the version is older than the window.
  if (offset >= known) return true;
  DriveTime confirmed;
  file->Seen(&confirmed);
  return Now() - confirmed >= std::chrono::milliseconds(options_.listing_ttl_ms);
}

bool RemoteDrive::MoveToCurrentVersion(OpenHandle* handle, const std::shared_ptr<RemoteFile>& stale) {
  std::shared_ptr<RemoteFile> current;
  // Drops the stale copy from the table when the origin's version differs,
  // and counts an open of the current one.
  if (OpenFile(stale->Path(), O_RDONLY, &current, true) != 0) return false;
  std::lock_guard<std::mutex> guard(files_lock_);
  if (current == stale) {
    --current->opens;
    return false;
  }
  ClientLog(LOGLEVEL_INFO, "%s changed on the origin while open: reading on from its new version",
            stale->Path().c_str());
  std::shared_ptr<RemoteFile> expected = stale;
  // Another read of the same handle may have moved it first.
  const bool moved = std::atomic_compare_exchange_strong(&handle->file, &expected, current);
  --(moved ? stale : current)->opens;
  return true;
}
