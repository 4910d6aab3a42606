#include "remote_drive.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "drive_stats.h"
#include "remote_file_io.h"
#include "remote_file_upload.h"

const char kStatsFileName[] = ".korvcache-stats";

const char kStatsPath[] = "/.korvcache-stats";

std::string ParentOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

RemoteDrive::RemoteDrive(std::unique_ptr<Origin> origin, DriveOptions options)
    : origin_(std::move(origin)),
      options_(std::move(options)),
      log_(options_.log_mask),
      listings_(origin_.get(), options_.listing_ttl_ms, options_.clock) {}

RemoteDrive::~RemoteDrive() { Shutdown(); }

bool RemoteDrive::Start(std::string* error) {
  Cache_BindLogger(&log_);
  SetClientLog(&log_);
  queue_ = std::make_unique<WorkerQueue>(options_.threads);
  Cache_BindAsyncQ(queue_.get());
  started_ = true;
  const unsigned int status = InitCache(options_.cache_dir.c_str(), options_.limit, &cache_);
  if (status != kOk) {
    *error = "cannot use cache directory " + options_.cache_dir + " (status " + std::to_string(status) + ")";
    cache_ = nullptr;
    return false;
  }
  // The directory must stay near its limit while files stream through it:
  // a clearing pass starts as soon as the limit is crossed, and read-ahead
  // blocks (whose sectors cannot be dropped while on their way) are kept to
  // an eighth of the limit. Read-only files are kept for the next run unless
  // told otherwise. Settings given by the user come after these.
  const unsigned long long read_ahead = std::min(256ULL << 20, cache_->GetLimit() / 8);
  const std::string bounds = std::string(R"({"cache":{)") + (options_.keep_cache ? R"("keep":1,)" : "") +
                             R"("clear":{"hard":1},"ra":{"max":)" + std::to_string(read_ahead) + "}}}";
  if (cache_->SetConfiguration(bounds.c_str()) != kOk) {
    *error = "the cache refused the drive's settings";
    return false;
  }
  if (!options_.settings_json.empty()) {
    const unsigned int applied = cache_->SetConfiguration(options_.settings_json.c_str());
    if (applied != kOk) {
      *error = "the cache settings were refused (status " + std::to_string(applied) + ")";
      return false;
    }
  }
  // Kept files count as soon as the manager has found them; nothing is open yet.
  if (options_.keep_cache) kept_bytes_at_start_ = cache_->GetUsedBytes();
  read_ahead_ = std::make_unique<DirectoryReadAhead>(
      options_.threads, options_.files_ahead,
      [this](const std::string& directory, std::vector<std::string>* names) { return ListFilesOf(directory, names); },
      [this](const std::string& path) { ReadAhead(path); });
  return StartSaving(error);
}

void RemoteDrive::Shutdown() {
  std::vector<std::shared_ptr<RemoteFile>> files;
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    if (shut_down_ || !started_) return;
    shut_down_ = true;
    for (auto& entry : files_) files.push_back(entry.second);
  }
  if (read_ahead_) read_ahead_->Stop();
  StopSaving();
  for (auto& file : files) {
    if (file->dirty && Upload(file.get()) != 0) KeepUnsavedCopy(options_.cache_dir, file.get());
  }
  // Running transfers end at their next bytes and queued fetches are
  // canceled rather than run; the manager's release then waits only for the
  // few still inside the library.
  stopping_ = true;
  queue_->CancelPending();
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    for (auto& entry : files_) Retire(entry.second);
    files_.clear();
  }
  files.clear();
  if (cache_ != nullptr) ReleaseCache(options_.cache_dir.c_str());
  cache_ = nullptr;
  // Work queued from now on runs on the caller's thread.
  Cache_UnbindAsyncQ();
  queue_->Stop();
  Cache_UnbindLogger();
  SetClientLog(nullptr);
  std::lock_guard<std::mutex> guard(files_lock_);
  retired_.clear();
}

std::shared_ptr<RemoteFile> RemoteDrive::FindFile(const std::string& path) {
  std::lock_guard<std::mutex> guard(files_lock_);
  auto it = files_.find(path);
  return it == files_.end() ? nullptr : it->second;
}

std::shared_ptr<RemoteFile> RemoteDrive::NewFile(const std::string& path, const OriginFileInfo& seen, bool on_origin,
                                                 std::string* error) {
  auto file = std::make_shared<RemoteFile>(path);
  file->SetSeen(seen, DriveTime());
  file->on_origin = on_origin;
  file->size.store(seen.size, std::memory_order_relaxed);
  file->mtime.store(seen.mtime != 0 ? seen.mtime : time(nullptr), std::memory_order_relaxed);
  file->fetch = std::make_shared<OriginFetch>(origin_.get(), path, seen.validator, &counters_, file->counters,
                                              options_.retry, &stopping_);
  // Opened read-only: a write open switches it (MakeWritable), and the
  // journal notes then which cache file holds the writable copy. A file on
  // the origin is opened with its version, so that a copy an earlier run
  // kept is served only while the origin still holds the same bytes.
  try {
    file->object = on_origin ? cache_->OpenVersion(path.c_str(), 'r', seen.size, file->fetch.get(),
                                                   KeptVersionOf(seen).c_str())
                             : cache_->Open(path.c_str(), 'r', seen.size, file->fetch.get());
  } catch (AERROR code) {
    *error = "the cache refused " + path + " (status " + std::to_string(code) + ")";
    return nullptr;
  }
  if (!file->object) {
    *error = "the cache refused " + path;
    return nullptr;
  }
  return file;
}

void RemoteDrive::Retire(const std::shared_ptr<RemoteFile>& file) {
  retired_.erase(std::remove_if(retired_.begin(), retired_.end(), [](const auto& item) { return item.first.expired(); }),
                 retired_.end());
  retired_.emplace_back(file->object, file->fetch);
}

void RemoteDrive::Discard(const std::shared_ptr<RemoteFile>& file, DiscardedCopy* copy) {
  // The manager keeps no copy at its Close(name) while the file holds the
  // object, and none after the object's Close(true).
  if (file->opens == 0) copy->object = file->object;
  Forget(file);
}

void RemoteDrive::Forget(const std::shared_ptr<RemoteFile>& file) {
  auto it = files_.find(file->Path());
  if (it == files_.end() || it->second != file) return;
  files_.erase(it);
  if (file->removed && file->journal != nullptr) file->journal->Drop(file.get());  // under its io_lock
  // Only the manager's table entry goes now; the object itself goes with the
  // last handle that holds the file, outside every lock.
  cache_->Close(file->Path().c_str());
  Retire(file);
  // While in the table the file's own size was answered; from now on its
  // directory's listing is, which must know the file as the origin last told.
  DriveTime told;
  const OriginFileInfo seen = file->Seen(&told);
  if (file->on_origin && !file->dirty && !file->removed && told != DriveTime()) {
    listings_.Stored(file->Path(), seen, told);
  } else {
    listings_.Forget(ParentOf(file->Path()));
  }
}

int RemoteDrive::OpenFile(const std::string& path, int flags, std::shared_ptr<RemoteFile>* opened, bool ask_origin) {
  const bool write = (flags & O_ACCMODE) != O_RDONLY;
  std::shared_ptr<RemoteFile> file;
  std::shared_ptr<RemoteFile> dropped;  // released after files_lock_
  DiscardedCopy gone;                   // of a file the origin no longer holds
  for (int attempt = 0;; ++attempt) {
    const long long uploads_before = uploads_.load();
    OriginFileInfo info;
    DriveTime confirmed;
    std::string error;
    const OriginStatus status = CurrentVersion(path, ask_origin, &info, &confirmed, &error);
    if (status == OriginStatus::kOk && info.is_directory) return -EISDIR;

    std::lock_guard<std::mutex> guard(files_lock_);
    if (shut_down_) return -EIO;
    // An upload that ended since the Stat makes its answer look like a change.
    if (uploads_.load() != uploads_before && attempt == 0) continue;
    auto it = files_.find(path);
    if (it != files_.end()) {
      file = it->second;
      // Data written here and not uploaded yet wins over the origin's.
      const bool local = file->dirty || !file->on_origin || file->writers > 0;
      const OriginFileInfo seen = file->Seen();
      const bool changed = status == OriginStatus::kOk && !SameVersion(info, seen);
      if (status == OriginStatus::kOk && !changed) file->Confirm(confirmed);
      if (!local && (changed || status == OriginStatus::kNotFound)) {
        ClientLog(LOGLEVEL_INFO, "%s changed on the origin: its cached copy is dropped", path.c_str());
        dropped = file;
        // A changed file's copy is dropped by the open of its new version.
        if (changed) Forget(file);
        else Discard(file, &gone);
        file = nullptr;
      }
    }
    if (!file) {
      if (status == OriginStatus::kOk) {
        file = NewFile(path, info, true, &error);
        if (file) file->Confirm(confirmed);
      } else if (status == OriginStatus::kNotFound && (flags & O_CREAT) != 0) {
        file = NewFile(path, OriginFileInfo(), false, &error);
        if (file) file->dirty = true;  // an empty new file is uploaded too
      } else if (status == OriginStatus::kNotFound) {
        return -ENOENT;
      } else {
        ClientLog(LOGLEVEL_ERROR, "open %s: origin %s: %s: %s", path.c_str(), origin_->Describe().c_str(),
                  OriginStatusText(status), error.c_str());
        return -EIO;
      }
      if (!file) {
        ClientLog(LOGLEVEL_ERROR, "open %s: %s", path.c_str(), error.c_str());
        return -EIO;
      }
      files_[path] = file;
    }
    ++file->opens;
    if (write) ++file->writers;
    break;
  }
  if (write) {
    int result = MakeWritable(file.get());
    if (result == 0 && (flags & O_TRUNC) != 0) result = TruncateRemoteFile(file.get(), 0);
    if (result != 0) {
      std::lock_guard<std::mutex> guard(files_lock_);
      --file->opens;
      --file->writers;
      return result;
    }
  }
  *opened = std::move(file);
  return 0;
}

std::shared_ptr<_FS_HANDLE> NewFsHandle(const std::string& path) {
  static std::atomic<int64_t> next_id{1};
  auto fs_handle = std::make_shared<_FS_HANDLE>();
  fs_handle->type = 1;
  fs_handle->state = 0;
  fs_handle->id = next_id.fetch_add(1, std::memory_order_relaxed);
  fs_handle->info = path;
  return fs_handle;
}

int RemoteDrive::Open(const std::string& path, int flags, std::unique_ptr<OpenHandle>* handle) {
  auto opened = std::make_unique<OpenHandle>();
  opened->writable = (flags & O_ACCMODE) != O_RDONLY;
  if (path == kStatsPath) {
    if (opened->writable) return -EACCES;
    opened->snapshot = StatsJson();
  } else {
    const int result = OpenFile(path, flags, &opened->file);
    if (result != 0) return result;
    opened->fs_handle = NewFsHandle(path);
    if (!opened->writable && opened->file->on_origin) read_ahead_->Opened(path);
  }
  *handle = std::move(opened);
  return 0;
}

long long RemoteDrive::Read(OpenHandle* handle, char* buffer, size_t size, long long offset) {
  std::shared_ptr<RemoteFile> file = std::atomic_load(&handle->file);
  if (!file) {
    const std::string& text = handle->snapshot;
    if (offset < 0 || offset >= static_cast<long long>(text.size())) return 0;
    const size_t count = std::min(size, text.size() - static_cast<size_t>(offset));
    std::copy_n(text.data() + offset, count, buffer);
    return static_cast<long long>(count);
  }
  const long long got = ReadRemoteFile(file.get(), handle->fs_handle, buffer, size, offset, &counters_);
  if (!MayHaveChanged(file.get(), got, size, offset) || !MoveToCurrentVersion(handle, file)) return got;
  return ReadRemoteFile(std::atomic_load(&handle->file).get(), handle->fs_handle, buffer, size, offset, &counters_);
}

long long RemoteDrive::Write(OpenHandle* handle, const char* buffer, size_t size, long long offset) {
  if (!handle->writable || !handle->file) return -EBADF;
  return WriteRemoteFile(handle->file.get(), handle->fs_handle, buffer, size, offset);
}

int RemoteDrive::Truncate(const std::string& path, OpenHandle* handle, long long size) {
  if (size < 0) return -EINVAL;
  if (path == kStatsPath) return -EACCES;
  if (handle != nullptr && handle->writable && handle->file) return TruncateRemoteFile(handle->file.get(), size);
  std::unique_ptr<OpenHandle> own;
  int result = Open(path, O_WRONLY, &own);
  if (result != 0) return result;
  result = TruncateRemoteFile(own->file.get(), size);
  const int flushed = Flush(own.get());
  Release(std::move(own));
  return result != 0 ? result : flushed;
}

int RemoteDrive::Flush(OpenHandle* handle) {
  if (!handle->writable || !handle->file || !handle->file->dirty) return 0;
  return Save(handle->file);
}

int RemoteDrive::Release(std::unique_ptr<OpenHandle> handle) {
  if (!handle || !handle->file) return 0;
  const std::shared_ptr<RemoteFile> file = handle->file;
  // The library polls the state of handles it waits for.
  __atomic_store_n(&handle->fs_handle->state, 3, __ATOMIC_RELAXED);
  bool discard = false;
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    --file->opens;
    if (handle->writable) --file->writers;
    discard = file->opens == 0 && file->removed;
  }
  // The last handle of a discarded file takes its cached copy along.
  if (discard) file->object->Close(true);
  // FUSE flushes before it releases; a caller that did not gets its upload here.
  const int result = handle->writable && file->dirty ? Save(file) : 0;
  std::lock_guard<std::mutex> guard(files_lock_);
  // A clean whole-file copy is dropped once nobody has the file open: the
  // next reader gets a sector cache, which the quota thread can thin.
  if (file->opens == 0 && file->writable && !file->dirty) Forget(file);
  return result;
}

int RemoteDrive::Upload(RemoteFile* file) {
  const DriveTime before = Now();
  const int result = UploadRemoteFile(origin_.get(), file, &uploads_, options_.clock);
  if (result != 0) return result;
  // The directory's listing from before the upload lacks the file or has its
  // old size. The origin's answer after the upload is the entry as it is
  // now; without one, the directory is listed afresh.
  DriveTime told;
  const OriginFileInfo info = file->Seen(&told);
  if (told >= before) listings_.Stored(file->Path(), info, told);
  else listings_.Added(file->Path());
  return 0;
}

int RemoteDrive::GetAttributes(const std::string& path, FileAttributes* attributes) {
  *attributes = FileAttributes();
  if (path == "/") {
    attributes->is_directory = true;
    return 0;
  }
  if (path == kStatsPath) {
    attributes->size = static_cast<long long>(StatsJson().size());
    attributes->mtime = time(nullptr);
    attributes->read_only = true;
    return 0;
  }
  std::shared_ptr<RemoteFile> file = FindFile(path);
  if (file && (file->writable || !file->on_origin || file->dirty)) {
    attributes->size = file->size.load(std::memory_order_relaxed);
    attributes->mtime = file->mtime.load(std::memory_order_relaxed);
    return 0;
  }
  OriginEntry entry;
  DriveTime taken;
  const int listed = listings_.Find(path, &entry, &taken);
  if (listed == 0) {
    DriveTime confirmed;
    if (file && !entry.is_directory) file->Seen(&confirmed);
    // A version the origin confirmed since it listed the directory is newer.
    const bool newer = file && !entry.is_directory && confirmed >= taken;
    attributes->is_directory = entry.is_directory;
    attributes->size = newer ? file->size.load(std::memory_order_relaxed) : entry.size;
    attributes->mtime = newer ? file->mtime.load(std::memory_order_relaxed) : entry.mtime;
    return 0;
  }
  if (file && listed != -ENOENT) {  // known from an earlier open; the origin does not answer now
    attributes->size = file->size.load(std::memory_order_relaxed);
    attributes->mtime = file->mtime.load(std::memory_order_relaxed);
    return 0;
  }
  return listed;
}

int RemoteDrive::ListDirectory(const std::string& path, std::vector<OriginEntry>* entries) {
  const int listed = listings_.List(path, entries);
  if (listed != 0) return listed;
  std::lock_guard<std::mutex> guard(files_lock_);
  // Files created here and not uploaded yet are part of the directory too.
  for (auto& entry : files_) {
    RemoteFile& file = *entry.second;
    if (ParentOf(file.Path()) != path || (file.on_origin && !file.dirty)) continue;
    const std::string name = NameOf(file.Path());
    if (std::any_of(entries->begin(), entries->end(), [&](const OriginEntry& e) { return e.name == name; })) continue;
    OriginEntry local;
    local.name = name;
    local.size = file.size.load(std::memory_order_relaxed);
    local.mtime = file.mtime.load(std::memory_order_relaxed);
    entries->push_back(local);
  }
  if (path == "/") {
    OriginEntry stats;
    stats.name = kStatsFileName;
    entries->push_back(stats);
  }
  return 0;
}

// The manager's usage counter is not kept up to date by the library, so the
// directory is measured.
unsigned long long RemoteDrive::CacheDirectoryBytes() const { return DirectoryBytes(options_.cache_dir); }

std::string RemoteDrive::StatsJson() {
  std::vector<std::shared_ptr<RemoteFile>> open_files;
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    for (auto& entry : files_) {
      if (entry.second->opens > 0) open_files.push_back(entry.second);
    }
  }
  DriveStatsInput input;
  input.origin = origin_->Describe();
  input.cache_dir = options_.cache_dir;
  input.counters = &counters_;
  input.kept_bytes_at_start = kept_bytes_at_start_;
  if (cache_ != nullptr) {
    input.cache_bytes = CacheDirectoryBytes();
    input.limit = cache_->GetLimit();
  }
  for (auto& file : open_files) {
    input.files.push_back({file->Path(), file->size.load(std::memory_order_relaxed), file->counters.get()});
  }
  return RenderDriveStats(input);
}
