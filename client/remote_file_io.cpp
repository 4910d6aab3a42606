#include "remote_file_io.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "stderr_log.h"
#include "write_journal.h"

namespace {

void RaiseTo(std::atomic<long long>& value, long long at_least) {
  long long seen = value.load(std::memory_order_relaxed);
  while (seen < at_least && !value.compare_exchange_weak(seen, at_least, std::memory_order_relaxed)) {
  }
}

}  // namespace

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

int MakeRemoteFileWritable(RemoteFile* file) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (file->writable) return 0;
  const unsigned int status = file->object->SetMode('w', file->size.load(std::memory_order_relaxed), file->fetch.get());
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "%s cannot be opened for writing (cache status %u)", file->Path().c_str(), status);
    return -EIO;
  }
  file->writable = true;
  return 0;
}

long long ReadRemoteFile(RemoteFile* file, const std::shared_ptr<_FS_HANDLE>& handle, char* buffer, size_t size,
                         long long offset, TransferCounters* drive) {
  // Reads stop at the size this client knows: the writable cache would serve
  // whatever its local file holds past it.
  const long long file_size = file->size.load(std::memory_order_relaxed);
  if (offset < 0) return -EINVAL;
  if (offset >= file_size || size == 0) return 0;
  const unsigned long long count = std::min<unsigned long long>(size, static_cast<unsigned long long>(file_size - offset));

  const long long requests_before = TransferCounters::Get(drive->origin_requests);
  const bool idle_before = TransferCounters::Get(drive->in_flight) == 0;
  const bool read_only = !file->writable;
  _READDATA request = ReadRequest(buffer, offset, count, handle, file_size, file->fetch.get());
  const unsigned int status = file->object->Read(&request);
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "read %s [%lld, +%llu): cache status %u", file->Path().c_str(), offset, count, status);
    return -EIO;
  }
  const long long served = static_cast<long long>(request.transferred);
  TransferCounters::Add(drive->bytes_served, served);
  TransferCounters::Add(file->counters->bytes_served, served);
  if (idle_before && TransferCounters::Get(drive->in_flight) == 0 &&
      TransferCounters::Get(drive->origin_requests) == requests_before) {
    TransferCounters::Add(drive->bytes_served_from_cache, served);
    TransferCounters::Add(file->counters->bytes_served_from_cache, served);
  }
  // A fetch counts its request before any of its bytes reach the cache: with
  // none yet, every byte served was in the cache file when it was opened.
  if (read_only && TransferCounters::Get(file->counters->origin_requests) == 0) {
    TransferCounters::Add(drive->bytes_served_from_kept_cache, served);
  }
  return served;
}

long long WriteRemoteFile(RemoteFile* file, const std::shared_ptr<_FS_HANDLE>& handle, const char* buffer,
                          size_t size, long long offset) {
  if (offset < 0) return -EINVAL;
  // Writes hold the file's io_lock so that an upload never misses one.
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (const int prepared = PrepareFirstChange(file, false); prepared != 0) return prepared;
  // The cache fetches the origin's bytes of the sectors the write covers in
  // part, and fails the write when it cannot.
  const long long size_before = file->size.load(std::memory_order_relaxed);
  _WRITEDATA request{};
  request.buffer = buffer;
  request.offset = offset;
  request.size = size;
  request.handle = handle;
  request.file_size = size_before;
  request.fetch = file->on_origin ? file->fetch.get() : nullptr;
  const unsigned int status = file->object->Write(&request);
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "write %s [%lld, +%zu): cache status %u", file->Path().c_str(), offset, size, status);
    return -EIO;
  }
  RaiseTo(file->size, offset + static_cast<long long>(request.transferred));
  file->mtime.store(time(nullptr), std::memory_order_relaxed);
  file->kept_mtime.store(0, std::memory_order_relaxed);
  file->dirty = true;
  return static_cast<long long>(request.transferred);
}

int TruncateRemoteFile(RemoteFile* file, long long size) {
  std::lock_guard<std::mutex> guard(file->io_lock);
  if (const int prepared = PrepareFirstChange(file, size == 0); prepared != 0) return prepared;
  const unsigned int status = file->object->Truncate(size);
  if (status != kOk) {
    ClientLog(LOGLEVEL_ERROR, "truncate %s to %lld: cache status %u", file->Path().c_str(), size, status);
    return -EIO;
  }
  file->size.store(size, std::memory_order_relaxed);
  file->mtime.store(time(nullptr), std::memory_order_relaxed);
  file->kept_mtime.store(0, std::memory_order_relaxed);
  file->dirty = true;
  return 0;
}
