// Reading ahead across the files of a directory (directory_read_ahead.h):
// what a read ahead lists, and how it brings a file's first bytes into the
// cache. It opens the file as a reader would, so what it reads is the
// version a reader's open would get, and the file stays in the table with
// that version confirmed: the reader's open then asks the origin nothing.
#include <vector>

#include "remote_drive.h"
#include "remote_file_io.h"

namespace {

// Two sectors: the whole of most small files, and a large file's first
// reads, which are all that wait for a round trip before the cache's own
// read-ahead takes over.
constexpr size_t kBytesReadAhead = 1 << 20;

}  // namespace

bool RemoteDrive::ListFilesOf(const std::string& directory, std::vector<std::string>* names) {
  std::vector<OriginEntry> entries;
  if (listings_.List(directory, &entries) != 0) return false;
  for (const OriginEntry& entry : entries) {
    if (!entry.is_directory && entry.size > 0) names->push_back(entry.name);
  }
  return true;
}

void RemoteDrive::ReadAhead(const std::string& path) {
  if (stopping_.load()) return;
  // A file read since the drive learnt of its version has its first bytes
  // cached already (or dropped for room): reading them again would copy
  // them for nothing, which a warm walk would do for every file.
  const std::shared_ptr<RemoteFile> known = FindFile(path);
  if (known && TransferCounters::Get(known->counters->bytes_served) > 0) return;
  auto handle = std::make_unique<OpenHandle>();
  // Not Open(): a read ahead is no reader's step through the directory.
  if (OpenFile(path, O_RDONLY, &handle->file) != 0) return;
  handle->fs_handle = NewFsHandle(path);
  RemoteFile* file = handle->file.get();
  if (!file->writable && file->on_origin) {
    thread_local std::vector<char> buffer(kBytesReadAhead);
    // The bytes reach the cache; no reader was served them.
    TransferCounters unserved;
    ReadRemoteFile(file, handle->fs_handle, buffer.data(), buffer.size(), 0, &unserved);
  }
  Release(std::move(handle));
}

void RemoteDrive::WaitForReadAhead() {
  if (read_ahead_) read_ahead_->WaitIdle();
}
