#include "remote_drive.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "drive_stats.h"

const char kStatsFileName[] = ".korvcache-stats";

namespace {

const std::string kStatsPath = std::string("/") + kStatsFileName;

std::string ParentOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool MakeDirectories(const std::string& path) {
  for (std::string::size_type slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = slash == std::string::npos ? path : path.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

_READDATA ReadRequest(char* buffer, long long offset, unsigned long long size, std::shared_ptr<_FS_HANDLE> handle,
                      long long file_size, IFetch* fetch) {
  _READDATA request{};
  request.buffer = buffer;
  request.offset = offset;
  request.size = size;
  request.handle = std::move(handle);
  request.file_size = file_size;
  request.fetch = fetch;
  return request;
}

void RaiseTo(std::atomic<long long>& value, long long at_least) {
  long long seen = value.load(std::memory_order_relaxed);
  while (seen < at_least && !value.compare_exchange_weak(seen, at_least, std::memory_order_relaxed)) {
  }
}

}  // namespace

RemoteDrive::RemoteDrive(std::unique_ptr<Origin> origin, DriveOptions options)
    : origin_(std::move(origin)), options_(std::move(options)), log_(options_.log_mask) {}

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
  if (!options_.settings_json.empty()) {
    const unsigned int applied = cache_->SetConfiguration(options_.settings_json.c_str());
    if (applied != kOk) {
      *error = "the cache settings were refused (status " + std::to_string(applied) + ")";
      return false;
    }
  }
  return true;
}

void RemoteDrive::Shutdown() {
  std::vector<std::shared_ptr<RemoteFile>> files;
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    if (shut_down_ || !started_) return;
    shut_down_ = true;
    for (auto& entry : files_) files.push_back(entry.second);
  }
  for (auto& file : files) {
    if (file->dirty && Upload(file.get()) != 0) KeepUnsaved(file.get());
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
                                                 char mode, std::string* error) {
  auto file = std::make_shared<RemoteFile>(path);
  file->SetSeen(seen);
  file->on_origin = on_origin;
  file->size.store(seen.size, std::memory_order_relaxed);
  file->mtime.store(seen.mtime != 0 ? seen.mtime : time(nullptr), std::memory_order_relaxed);
  file->fetch = std::make_shared<OriginFetch>(origin_.get(), path, seen.validator, &counters_, file->counters,
                                              options_.retry, &stopping_);
  try {
    file->object = cache_->Open(path.c_str(), mode, seen.size, file->fetch.get());
  } catch (AERROR code) {
    *error = "the cache refused " + path + " (status " + std::to_string(code) + ")";
    return nullptr;
  }
  if (!file->object) {
    *error = "the cache refused " + path;
    return nullptr;
  }
  file->writable = mode == 'w';
  return file;
}

void RemoteDrive::Retire(const std::shared_ptr<RemoteFile>& file) {
  retired_.erase(std::remove_if(retired_.begin(), retired_.end(), [](const auto& item) { return item.first.expired(); }),
                 retired_.end());
  retired_.emplace_back(file->object, file->fetch);
}

void RemoteDrive::Forget(const std::shared_ptr<RemoteFile>& file) {
  auto it = files_.find(file->path);
  if (it == files_.end() || it->second != file) return;
  files_.erase(it);
  // Only the manager's table entry goes now; the object itself goes with the
  // last handle that holds the file, outside every lock.
  cache_->Close(file->path.c_str());
  Retire(file);
  listings_.erase(ParentOf(file->path));
}

int RemoteDrive::OpenFile(const std::string& path, int flags, std::shared_ptr<RemoteFile>* opened) {
  const bool write = (flags & O_ACCMODE) != O_RDONLY;
  std::shared_ptr<RemoteFile> file;
  std::shared_ptr<RemoteFile> dropped;  // released after files_lock_
  for (int attempt = 0;; ++attempt) {
    const long long uploads_before = uploads_.load();
    OriginFileInfo info;
    std::string error;
    const OriginStatus status = origin_->Stat(path, &info, &error);
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
      const bool changed = status == OriginStatus::kOk && (info.size != seen.size || info.validator != seen.validator);
      if (!local && (changed || status == OriginStatus::kNotFound)) {
        ClientLog(LOGLEVEL_INFO, "%s changed on the origin: its cached copy is dropped", path.c_str());
        dropped = file;
        Forget(file);
        file = nullptr;
      }
    }
    if (!file) {
      if (status == OriginStatus::kOk) {
        file = NewFile(path, info, true, write ? 'w' : 'r', &error);
      } else if (status == OriginStatus::kNotFound && (flags & O_CREAT) != 0) {
        file = NewFile(path, OriginFileInfo(), false, 'w', &error);
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
    if (result == 0 && (flags & O_TRUNC) != 0) result = TruncateFile(file.get(), 0);
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

int RemoteDrive::Open(const std::string& path, int flags, std::unique_ptr<OpenHandle>* handle) {
  static std::atomic<int64_t> next_id{1};
  auto opened = std::make_unique<OpenHandle>();
  opened->writable = (flags & O_ACCMODE) != O_RDONLY;
  if (path == kStatsPath) {
    if (opened->writable) return -EACCES;
    opened->snapshot = StatsJson();
  } else {
    const int result = OpenFile(path, flags, &opened->file);
    if (result != 0) return result;
    opened->fs_handle = std::make_shared<_FS_HANDLE>();
    opened->fs_handle->type = 1;
    opened->fs_handle->state = 0;
    opened->fs_handle->id = next_id.fetch_add(1, std::memory_order_relaxed);
    opened->fs_handle->info = path;
  }
  *handle = std::move(opened);
  return 0;
}

int RemoteDrive::MakeWritable(RemoteFile* file) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (file->writable) return 0;
  const unsigned int status = file->object->SetMode('w', file->size.load(std::memory_order_relaxed), file->fetch.get());
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "%s cannot be opened for writing (cache status %u)", file->path.c_str(), status);
    return -EIO;
  }
  file->writable = true;
  return 0;
}

long long RemoteDrive::Read(OpenHandle* handle, char* buffer, size_t size, long long offset) {
  if (!handle->file) {
    const std::string& text = handle->snapshot;
    if (offset < 0 || offset >= static_cast<long long>(text.size())) return 0;
    const size_t count = std::min(size, text.size() - static_cast<size_t>(offset));
    std::copy_n(text.data() + offset, count, buffer);
    return static_cast<long long>(count);
  }
  RemoteFile* file = handle->file.get();
  // Reads stop at the size this client knows: the writable cache would serve
  // whatever its local file holds past it.
  const long long file_size = file->size.load(std::memory_order_relaxed);
  if (offset < 0) return -EINVAL;
  if (offset >= file_size || size == 0) return 0;
  const unsigned long long count = std::min<unsigned long long>(size, static_cast<unsigned long long>(file_size - offset));

  const long long requests_before = TransferCounters::Get(counters_.origin_requests);
  const bool idle_before = TransferCounters::Get(counters_.in_flight) == 0;
  _READDATA request = ReadRequest(buffer, offset, count, handle->fs_handle, file_size, file->fetch.get());
  const long long failures_before = file->fetch->failures();
  const unsigned int status = file->object->Read(&request);
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "read %s [%lld, +%llu): cache status %u", file->path.c_str(), offset, count, status);
    return -EIO;
  }
  // A writable cache serves its zeros where a fetch failed.
  if (file->writable && file->fetch->failures() != failures_before) {
    ClientLog(LOGLEVEL_ERROR, "read %s [%lld, +%llu): the origin's bytes could not be fetched", file->path.c_str(),
              offset, count);
    return -EIO;
  }
  const long long served = static_cast<long long>(request.transferred);
  TransferCounters::Add(counters_.bytes_served, served);
  TransferCounters::Add(file->counters->bytes_served, served);
  if (idle_before && TransferCounters::Get(counters_.in_flight) == 0 &&
      TransferCounters::Get(counters_.origin_requests) == requests_before) {
    TransferCounters::Add(counters_.bytes_served_from_cache, served);
    TransferCounters::Add(file->counters->bytes_served_from_cache, served);
  }
  return served;
}

long long RemoteDrive::Write(OpenHandle* handle, const char* buffer, size_t size, long long offset) {
  if (!handle->writable || !handle->file) return -EBADF;
  if (offset < 0) return -EINVAL;
  RemoteFile* file = handle->file.get();
  // Writes hold the file's io_lock so that an upload never misses one.
  std::lock_guard<std::mutex> guard(file->io_lock);
  // The sectors the write covers in part get their origin bytes first: the
  // writable cache would mark them written even when that fetch failed.
  const long long failures_before = file->fetch->failures();
  const long long size_before = file->size.load(std::memory_order_relaxed);
  if (offset >= size_before) FetchSectorAt(file, size_before - 1);
  FetchSectorAt(file, offset);
  FetchSectorAt(file, offset + static_cast<long long>(size));
  if (file->fetch->failures() != failures_before) {
    ClientLog(LOGLEVEL_ERROR, "write %s [%lld, +%zu): the origin's bytes around it could not be fetched",
              file->path.c_str(), offset, size);
    return -EIO;
  }
  _WRITEDATA request{};
  request.buffer = buffer;
  request.offset = offset;
  request.size = size;
  request.handle = handle->fs_handle;
  request.file_size = size_before;
  request.fetch = file->on_origin ? file->fetch.get() : nullptr;
  const unsigned int status = file->object->Write(&request);
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "write %s [%lld, +%zu): cache status %u", file->path.c_str(), offset, size, status);
    return -EIO;
  }
  RaiseTo(file->size, offset + static_cast<long long>(request.transferred));
  file->mtime.store(time(nullptr), std::memory_order_relaxed);
  file->dirty = true;
  return static_cast<long long>(request.transferred);
}

// The writable cache fetches the origin's bytes of a sector only when a read
// or a write inside the file touches it. A write that starts at or past the
// end marks the sector it starts in as written without fetching it, and a
// cut keeps the sector of the new end unfetched, so that growing the file
// again would later fetch origin bytes over the zeros. Reading one byte
// fetches the sector first; it is a local read once the sector is there.
// REQUIRES: file->io_lock held.
void RemoteDrive::FetchSectorAt(RemoteFile* file, long long offset) {
  if (!file->on_origin || offset < 0 || offset >= file->Seen().size) return;
  char byte;
  auto own_handle = std::make_shared<_FS_HANDLE>();
  own_handle->info = file->path;
  _READDATA request =
      ReadRequest(&byte, offset, 1, own_handle, file->size.load(std::memory_order_relaxed), file->fetch.get());
  const unsigned int status = file->object->Read(&request);
  if (status != kOk) ClientLog(LOGLEVEL_WARNING, "%s: fetching the sector at %lld failed (cache status %u)",
                               file->path.c_str(), offset, status);
}

int RemoteDrive::TruncateFile(RemoteFile* file, long long size) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  const long long failures_before = file->fetch->failures();
  if (size < file->size.load(std::memory_order_relaxed)) FetchSectorAt(file, size);
  if (file->fetch->failures() != failures_before) {
    ClientLog(LOGLEVEL_ERROR, "truncate %s to %lld: the origin's bytes at the new end could not be fetched",
              file->path.c_str(), size);
    return -EIO;
  }
  const unsigned int status = file->object->Truncate(size);
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "truncate %s to %lld: cache status %u", file->path.c_str(), size, status);
    return -EIO;
  }
  file->size.store(size, std::memory_order_relaxed);
  file->mtime.store(time(nullptr), std::memory_order_relaxed);
  file->dirty = true;
  return 0;
}

int RemoteDrive::Truncate(const std::string& path, OpenHandle* handle, long long size) {
  if (size < 0) return -EINVAL;
  if (path == kStatsPath) return -EACCES;
  if (handle != nullptr && handle->writable && handle->file) return TruncateFile(handle->file.get(), size);
  std::unique_ptr<OpenHandle> own;
  int result = Open(path, O_WRONLY, &own);
  if (result != 0) return result;
  result = TruncateFile(own->file.get(), size);
  const int flushed = Flush(own.get());
  Release(std::move(own));
  return result != 0 ? result : flushed;
}

int RemoteDrive::Flush(OpenHandle* handle) {
  if (!handle->writable || !handle->file || !handle->file->dirty) return 0;
  return Upload(handle->file.get());
}

int RemoteDrive::Release(std::unique_ptr<OpenHandle> handle) {
  if (!handle || !handle->file) return 0;
  const std::shared_ptr<RemoteFile> file = handle->file;
  // The library polls the state of handles it waits for.
  __atomic_store_n(&handle->fs_handle->state, 3, __ATOMIC_RELAXED);
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    --file->opens;
    if (handle->writable) --file->writers;
  }
  // FUSE flushes before it releases; a caller that did not gets its upload here.
  const int result = handle->writable && file->dirty ? Upload(file.get()) : 0;
  std::lock_guard<std::mutex> guard(files_lock_);
  // A clean whole-file copy is dropped once nobody has the file open: the
  // next reader gets a sector cache, which the quota thread can thin.
  if (file->opens == 0 && file->writable && !file->dirty) Forget(file);
  return result;
}

int RemoteDrive::Upload(RemoteFile* file) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (!file->dirty) return 0;
  const long long failures_before = file->fetch->failures();
  if (file->on_origin) {
    const unsigned int filled = file->object->FillEmptySectors(file->fetch.get());
    if (filled != kOk || file->fetch->failures() != failures_before) {
      ClientAlert("upload of %s: the unchanged parts could not be fetched from %s; the written data stays in the "
                  "cache and is uploaded again at the next close or at unmount",
                  file->path.c_str(), origin_->Describe().c_str());
      return -EIO;
    }
  }
  const long long size = file->size.load(std::memory_order_relaxed);
  auto own_handle = std::make_shared<_FS_HANDLE>();
  own_handle->info = file->path;
  ByteSource source = [&](long long offset, char* buffer, size_t length) -> long long {
    _READDATA request = ReadRequest(buffer, offset, length, own_handle, size, nullptr);
    const unsigned int status = file->object->Read(&request);
    return status == kOk ? static_cast<long long>(request.transferred) : -1;
  };
  std::string error;
  const OriginStatus status = origin_->Upload(file->path, size, source, &error);
  if (status != OriginStatus::kOk) {
    ClientAlert("upload of %s to %s failed (%s); the written data stays in the cache and is uploaded again at "
                "the next close or at unmount",
                file->path.c_str(), origin_->Describe().c_str(),
                error.empty() ? OriginStatusText(status) : error.c_str());
    return -EIO;
  }
  file->dirty = false;
  file->on_origin = true;
  uploads_.fetch_add(1);
  OriginFileInfo info;
  if (origin_->Stat(file->path, &info, &error) == OriginStatus::kOk) file->SetSeen(info);
  {
    std::lock_guard<std::mutex> files_guard(files_lock_);
    listings_.erase(ParentOf(file->path));
  }
  ClientLog(LOGLEVEL_INFO, "uploaded %s (%lld bytes)", file->path.c_str(), size);
  return 0;
}

void RemoteDrive::KeepUnsaved(RemoteFile* file) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (file->on_origin) file->object->FillEmptySectors(file->fetch.get());
  const std::string target = options_.cache_dir + "/unsaved" + file->path;
  FILE* out = nullptr;
  if (MakeDirectories(ParentOf(target))) out = fopen(target.c_str(), "wb");
  const long long size = file->size.load(std::memory_order_relaxed);
  std::vector<char> buffer(1 << 20);
  bool ok = out != nullptr;
  auto own_handle = std::make_shared<_FS_HANDLE>();
  for (long long done = 0; ok && done < size;) {
    _READDATA request = ReadRequest(buffer.data(), done,
                                    static_cast<unsigned long long>(std::min<long long>(size - done, buffer.size())),
                                    own_handle, size, file->on_origin ? file->fetch.get() : nullptr);
    ok = file->object->Read(&request) == kOk && request.transferred > 0 &&
         fwrite(buffer.data(), 1, request.transferred, out) == request.transferred;
    done += static_cast<long long>(request.transferred);
  }
  if (out != nullptr && fclose(out) != 0) ok = false;
  if (ok) {
    ClientAlert("%s could not be uploaded; its contents are kept in %s", file->path.c_str(), target.c_str());
  } else {
    ClientAlert("%s could not be uploaded nor kept in %s (%s): its changes are lost", file->path.c_str(),
                target.c_str(), strerror(errno));
  }
}

int RemoteDrive::CachedListing(const std::string& directory, std::vector<OriginEntry>* entries) {
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard<std::mutex> guard(files_lock_);
    auto it = listings_.find(directory);
    if (it != listings_.end() && now - it->second.taken < std::chrono::milliseconds(options_.listing_ttl_ms)) {
      *entries = it->second.entries;
      return 0;
    }
  }
  std::string error;
  std::vector<OriginEntry> fresh;
  const OriginStatus status = origin_->List(directory, &fresh, &error);
  std::lock_guard<std::mutex> guard(files_lock_);
  if (status == OriginStatus::kOk) {
    listings_[directory] = Listing{now, fresh};
    *entries = std::move(fresh);
    return 0;
  }
  if (status == OriginStatus::kNotFound) {
    listings_.erase(directory);
    return -ENOENT;
  }
  // An origin out of reach keeps the last listing it gave.
  auto it = listings_.find(directory);
  if (it != listings_.end()) {
    *entries = it->second.entries;
    return 0;
  }
  ClientLog(LOGLEVEL_ERROR, "list %s: origin %s: %s: %s", directory.c_str(), origin_->Describe().c_str(),
            OriginStatusText(status), error.c_str());
  return -EIO;
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
  std::vector<OriginEntry> entries;
  const int listed = CachedListing(ParentOf(path), &entries);
  if (listed == 0) {
    const std::string name = NameOf(path);
    for (const OriginEntry& entry : entries) {
      if (entry.name != name) continue;
      attributes->is_directory = entry.is_directory;
      attributes->size = entry.size;
      attributes->mtime = entry.mtime;
      return 0;
    }
  }
  if (file && listed != 0 && listed != -ENOENT) {  // known from an earlier open; the origin does not answer now
    attributes->size = file->size.load(std::memory_order_relaxed);
    attributes->mtime = file->mtime.load(std::memory_order_relaxed);
    return 0;
  }
  return listed != 0 ? listed : -ENOENT;
}

int RemoteDrive::ListDirectory(const std::string& path, std::vector<OriginEntry>* entries) {
  const int listed = CachedListing(path, entries);
  if (listed != 0) return listed;
  std::lock_guard<std::mutex> guard(files_lock_);
  // Files created here and not uploaded yet are part of the directory too.
  for (auto& entry : files_) {
    RemoteFile& file = *entry.second;
    if (ParentOf(file.path) != path || (file.on_origin && !file.dirty)) continue;
    const std::string name = NameOf(file.path);
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
// directory is measured: the blocks its files hold, sparse slots excluded.
unsigned long long RemoteDrive::CacheDirectoryBytes() const {
  unsigned long long total = 0;
  std::vector<std::string> pending = {options_.cache_dir};
  while (!pending.empty()) {
    const std::string dir = pending.back();
    pending.pop_back();
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) continue;
    while (struct dirent* entry = readdir(handle)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      struct stat st;
      if (lstat((dir + "/" + name).c_str(), &st) != 0) continue;
      if (S_ISDIR(st.st_mode)) pending.push_back(dir + "/" + name);
      if (S_ISREG(st.st_mode)) total += static_cast<unsigned long long>(st.st_blocks) * 512;
    }
    closedir(handle);
  }
  return total;
}

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
  if (cache_ != nullptr) {
    input.cache_bytes = CacheDirectoryBytes();
    input.limit = cache_->GetLimit();
  }
  for (auto& file : open_files) {
    input.files.push_back({file->path, file->size.load(std::memory_order_relaxed), file->counters.get()});
  }
  return RenderDriveStats(input);
}
