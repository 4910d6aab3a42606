// Changes of names on a remote drive: unlink, rename, directories, times,
// and the volume's space. The origin changes first; then the table of files
// and the cache follow it, and the listings of every directory touched are
// asked for afresh, so that the next listing shows the change.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "remote_drive.h"

namespace {

int ErrnoOf(OriginStatus status) {
  switch (status) {
    case OriginStatus::kOk: return 0;
    case OriginStatus::kNotFound: return -ENOENT;
    case OriginStatus::kNotEmpty: return -ENOTEMPTY;
    case OriginStatus::kUnsupported: return -EPERM;
    default: return -EIO;  // unreachable, changed, failed
  }
}

// True when `path` lies beneath the directory `directory`.
bool IsBeneath(const std::string& path, const std::string& directory) {
  return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
         path[directory.size()] == '/';
}

int Refused(Origin* origin, const char* what, const std::string& path, OriginStatus status,
            const std::string& error) {
  // A mistake of the user's, or a refusal the volume tells at its own level.
  const bool users_mistake = status == OriginStatus::kNotFound || status == OriginStatus::kNotEmpty ||
                             status == OriginStatus::kUnsupported;
  ClientLog(users_mistake ? LOGLEVEL_INFO : LOGLEVEL_ERROR, "%s %s: origin %s: %s: %s", what, path.c_str(),
            origin->Describe().c_str(), OriginStatusText(status), error.c_str());
  return ErrnoOf(status);
}

// An origin that cannot set a time may take one with an upload: the file's
// bytes are stored again, carrying it (those not cached are fetched first).
// No upload carries a directory's time. A time the origin did not keep is
// -EPERM, never a silent success.
int StoreAgainWithTime(RemoteDrive* drive, const std::string& path, long long mtime) {
  FileAttributes attributes;
  int result = drive->GetAttributes(path, &attributes);
  if (result != 0) return result;
  if (attributes.is_directory) return -EPERM;
  std::unique_ptr<OpenHandle> handle;
  result = drive->Open(path, O_RDWR, &handle);
  if (result != 0) return result;
  const std::shared_ptr<RemoteFile> file = handle->file;
  {
    std::lock_guard<std::mutex> io(file->io_lock);
    file->mtime.store(mtime, std::memory_order_relaxed);
    file->kept_mtime.store(mtime, std::memory_order_relaxed);
    file->dirty = true;
  }
  result = drive->Flush(handle.get());
  const int released = drive->Release(std::move(handle));
  if (result != 0 || released != 0) return result != 0 ? result : released;
  if (file->Seen().mtime == mtime) return 0;
  ClientLog(LOGLEVEL_ERROR, "set the time of %s: origin %s stored the file but not its time", path.c_str(),
            drive->origin()->Describe().c_str());
  return -EPERM;
}

}  // namespace

std::vector<std::shared_ptr<RemoteFile>> RemoteDrive::FilesAt(const std::string& path) {
  std::vector<std::shared_ptr<RemoteFile>> found;
  for (auto it = files_.lower_bound(path); it != files_.end(); ++it) {
    if (it->first != path && !IsBeneath(it->first, path)) {
      if (it->first.compare(0, path.size(), path) != 0) break;  // past every name that starts with `path`
      continue;  // "/a.txt" sorts between "/a" and "/a/..."
    }
    found.push_back(it->second);
  }
  return found;
}

void RemoteDrive::Move(const std::shared_ptr<RemoteFile>& file, const std::string& to) {
  const std::string from = file->Path();
  // Handles still open upload to the new name, and fetches read from it.
  file->SetPath(to);
  file->fetch->SetPath(to);
  if (!file->journal_id.empty()) file->journal->Record(file.get());  // a crash now uploads to the new name
  auto it = files_.find(from);
  if (it == files_.end() || it->second != file) return;  // an open found it changed and dropped it
  files_.erase(it);
  // The manager's entry follows the name, so the cached bytes stay in use.
  cache_->Rehash(from.c_str(), to.c_str(), NameOf(to).c_str());
  files_[to] = file;
}

int RemoteDrive::Unlink(const std::string& path) {
  if (path == kStatsPath) return -EACCES;
  std::shared_ptr<RemoteFile> file;  // let go after every lock: a cache's end waits for its fetches
  DiscardedCopy gone;
  std::lock_guard<std::mutex> names(names_lock_);
  file = FindFile(path);
  std::unique_lock<std::mutex> io;
  if (file) io = std::unique_lock<std::mutex>(file->io_lock);  // an upload under way ends first
  std::string error;
  const OriginStatus status = origin_->Remove(path, &error);
  // A file created here and never uploaded is only in the table.
  const bool only_here = file && !file->on_origin;
  if (status != OriginStatus::kOk && !(status == OriginStatus::kNotFound && only_here)) {
    return Refused(origin_.get(), "unlink", path, status, error);
  }
  std::lock_guard<std::mutex> guard(files_lock_);
  if (file) {
    file->removed = true;
    Discard(file, &gone);
  }
  listings_.Removed(path);
  return 0;
}

int RemoteDrive::Rename(const std::string& from, const std::string& to, bool no_replace) {
  if (from == kStatsPath || to == kStatsPath) return -EACCES;
  if (from == "/" || to == "/") return -EBUSY;
  if (IsBeneath(to, from)) return -EINVAL;  // a directory into itself
  std::vector<std::shared_ptr<RemoteFile>> moving;  // let go after every lock
  std::shared_ptr<RemoteFile> replaced;
  DiscardedCopy gone;
  std::lock_guard<std::mutex> names(names_lock_);
  FileAttributes attributes;
  if (from == to) return GetAttributes(from, &attributes);
  if (no_replace && GetAttributes(to, &attributes) == 0) return -EEXIST;
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    moving = FilesAt(from);
    auto it = files_.find(to);
    if (it != files_.end()) replaced = it->second;
  }
  // Uploads under way, to either name, end before the names change.
  std::vector<std::unique_lock<std::mutex>> held;
  for (auto& file : moving) held.emplace_back(file->io_lock);
  if (replaced) held.emplace_back(replaced->io_lock);

  std::string error;
  OriginStatus status = origin_->Rename(from, to, &error);
  // A file created here and never uploaded moves in the table alone, into a
  // directory that exists; its upload stores it under the new name.
  const bool only_here = moving.size() == 1 && moving[0]->Path() == from && !moving[0]->on_origin;
  OriginFileInfo parent;
  std::string parent_error;
  if (status == OriginStatus::kNotFound && only_here &&
      origin_->Stat(ParentOf(to), &parent, &parent_error) == OriginStatus::kOk && parent.is_directory) {
    status = OriginStatus::kOk;
  }
  if (status != OriginStatus::kOk) return Refused(origin_.get(), "rename", from + " to " + to, status, error);

  std::lock_guard<std::mutex> guard(files_lock_);
  if (replaced) {
    replaced->removed = true;
    Discard(replaced, &gone);  // before the move, whose Rehash would close its object under its open handles
  }
  for (auto& file : moving) Move(file, to + file->Path().substr(from.size()));
  listings_.Moved(from, to);
  return 0;
}

int RemoteDrive::MakeDirectory(const std::string& path) {
  if (path == kStatsPath || path == "/") return -EEXIST;
  std::shared_ptr<RemoteFile> file = FindFile(path);
  if (file && !file->on_origin) return -EEXIST;  // created here, not uploaded yet
  std::string error;
  const OriginStatus status = origin_->MakeDirectory(path, &error);
  if (status == OriginStatus::kOk) {
    listings_.Added(path);
    return 0;
  }
  listings_.Forget(ParentOf(path));
  OriginFileInfo info;
  std::string stat_error;
  if (status == OriginStatus::kFailed && origin_->Stat(path, &info, &stat_error) == OriginStatus::kOk) return -EEXIST;
  return Refused(origin_.get(), "mkdir", path, status, error);
}

int RemoteDrive::RemoveDirectory(const std::string& path) {
  if (path == "/") return -EBUSY;
  std::lock_guard<std::mutex> names(names_lock_);
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    for (auto& file : FilesAt(path)) {
      if (!file->on_origin && file->Path() != path) return -ENOTEMPTY;  // created here, not uploaded yet
    }
  }
  std::string error;
  const OriginStatus status = origin_->RemoveDirectory(path, &error);
  if (status != OriginStatus::kOk) return Refused(origin_.get(), "rmdir", path, status, error);
  listings_.Removed(path);
  return 0;
}

int RemoteDrive::SetModificationTime(const std::string& path, long long mtime, bool to_now) {
  if (path == kStatsPath) return -EACCES;
  if (to_now) mtime = time(nullptr);
  std::shared_ptr<RemoteFile> file = FindFile(path);
  if (file && file->dirty) {
    file->mtime.store(mtime, std::memory_order_relaxed);
    if (to_now) return 0;  // the upload to come stamps the time
    // An upload stamps the origin's file anew, so it goes first and the time
    // set stays; an origin whose uploads carry a time takes it with this one.
    file->kept_mtime.store(mtime, std::memory_order_relaxed);
    const int uploaded = Upload(file.get());
    if (uploaded != 0) return uploaded;
    if (file->Seen().mtime == mtime) return 0;
  }
  std::string error;
  const OriginStatus status = origin_->SetModificationTime(path, mtime, &error);
  if (status == OriginStatus::kUnsupported) return StoreAgainWithTime(this, path, mtime);
  if (status != OriginStatus::kOk) return Refused(origin_.get(), "set the time of", path, status, error);
  listings_.Forget(ParentOf(path));
  if (file) {
    file->mtime.store(mtime, std::memory_order_relaxed);
    // Only the time changed: the cached bytes are those of the new version.
    OriginFileInfo info;
    const DriveTime asked = Now();
    if (origin_->Stat(path, &info, &error) == OriginStatus::kOk) {
      file->SetSeen(info, asked);
      file->fetch->SetValidator(info.validator);
    }
  }
  return 0;
}

int RemoteDrive::StatFs(struct statvfs* st) {
  constexpr long long kBlock = 4096;
  std::memset(st, 0, sizeof(*st));
  st->f_bsize = kBlock;
  st->f_frsize = kBlock;
  st->f_namemax = 255;
  long long used = 0, available = 0;
  if (origin_->Space(&used, &available)) {
    used = std::max(used, 0LL);
    available = std::max(available, 0LL);
    st->f_blocks = static_cast<fsblkcnt_t>((used + available) / kBlock);
    st->f_bfree = static_cast<fsblkcnt_t>(available / kBlock);
  } else {
    // Nothing to tell of the origin: the cache's room is what the volume has.
    const unsigned long long limit = cache_ != nullptr ? cache_->GetLimit() : 0;
    const unsigned long long cached = CacheDirectoryBytes();
    st->f_blocks = static_cast<fsblkcnt_t>(limit / kBlock);
    st->f_bfree = static_cast<fsblkcnt_t>(cached < limit ? (limit - cached) / kBlock : 0);
  }
  st->f_bavail = st->f_bfree;
  return 0;
}
