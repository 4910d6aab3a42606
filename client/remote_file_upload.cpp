#include "remote_file_upload.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "remote_file_io.h"
#include "stderr_log.h"
#include "write_journal.h"

namespace {

// Creates the directories above the file `path`.
bool MakeParentDirectories(const std::string& path) {
  for (std::string::size_type slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

}  // namespace

int UploadRemoteFile(Origin* origin, RemoteFile* file, std::atomic<long long>* uploads, const DriveClock& clock) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (!file->dirty || file->removed) return 0;
  const std::string path = file->Path();  // a rename waits for the io_lock
  if (file->on_origin) {
    // Fails when some of the origin's bytes could not be fetched or stored.
    const unsigned int filled = file->object->FillEmptySectors(file->fetch.get());
    if (filled != kOk) {
      ClientAlert("upload of %s: the unchanged parts could not be fetched from %s; the written data stays in the "
                  "cache and is uploaded again at the next close or at unmount",
                  path.c_str(), origin->Describe().c_str());
      return -EIO;
    }
  }
  const long long size = file->size.load(std::memory_order_relaxed);
  auto own_handle = std::make_shared<_FS_HANDLE>();
  own_handle->info = path;
  ByteSource source = [&](long long offset, char* buffer, size_t length) -> long long {
    _READDATA request = ReadRequest(buffer, offset, length, own_handle, size, nullptr);
    const unsigned int status = file->object->Read(&request);
    return status == kOk ? static_cast<long long>(request.transferred) : -1;
  };
  std::string error;
  const long long kept_mtime = file->kept_mtime.load(std::memory_order_relaxed);
  OriginStatus status = OriginStatus::kUnsupported;
  if (kept_mtime != 0) status = origin->UploadWithTime(path, size, source, kept_mtime, &error);
  if (status == OriginStatus::kUnsupported) status = origin->Upload(path, size, source, &error);
  if (status != OriginStatus::kOk) {
    ClientAlert("upload of %s to %s failed (%s); the written data stays in the cache and is uploaded again at "
                "the next close or at unmount",
                path.c_str(), origin->Describe().c_str(),
                error.empty() ? OriginStatusText(status) : error.c_str());
    return -EIO;
  }
  file->dirty = false;
  file->on_origin = true;
  if (file->journal != nullptr) file->journal->Drop(file);
  uploads->fetch_add(1);
  OriginFileInfo info;
  const DriveTime asked = clock();
  if (kept_mtime != 0) {
    // Whether the origin kept the time the upload carried is seen in its answer.
    if (origin->Stat(path, &info, &error) == OriginStatus::kOk) file->SetSeen(info, asked);
  } else {
    // An upload's answer names no version (nginx's carries no ETag), and
    // asking for it would cost every saved file a second round trip. The
    // bytes and their size are known; the validator is left empty, so the
    // origin is asked for it where one is needed: by an open once the file
    // has left the drive's table, or before a change is journaled.
    info.size = size;
    info.mtime = file->mtime.load(std::memory_order_relaxed);
    file->SetSeen(info, asked);
  }
  ClientLog(LOGLEVEL_INFO, "uploaded %s (%lld bytes)", path.c_str(), size);
  return 0;
}

void KeepUnsavedCopy(const std::string& cache_dir, RemoteFile* file) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  const std::string path = file->Path();
  if (file->on_origin) file->object->FillEmptySectors(file->fetch.get());
  const std::string target = cache_dir + "/unsaved" + path;
  FILE* out = nullptr;
  if (MakeParentDirectories(target)) out = fopen(target.c_str(), "wb");
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
  // The cache file goes with the cache: the record would point at nothing.
  if (file->journal != nullptr) file->journal->Drop(file);
  if (ok) {
    ClientAlert("%s could not be uploaded; its contents are kept in %s", path.c_str(), target.c_str());
  } else {
    ClientAlert("%s could not be uploaded nor kept in %s (%s): its changes are lost", path.c_str(),
                target.c_str(), strerror(errno));
  }
}
