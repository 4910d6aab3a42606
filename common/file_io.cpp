#include "common/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>

#include "common/platform.h"

namespace {

FileIo real_io;
std::atomic<FileIo*> current_io{&real_io};

}  // namespace

FILE* FileIo::Open(const std::string& path, const char* mode) {
  const std::string how = mode;
  if (how.find('w') == std::string::npos) return fopen(path.c_str(), mode);
  // Created readable by the owner alone: cached file contents are private.
  const int flags = (how.find('+') != std::string::npos ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC | O_CLOEXEC;
  const int fd = open(path.c_str(), flags, 0600);
  if (fd < 0) return nullptr;
  FILE* stream = fdopen(fd, mode);
  if (stream == nullptr) close(fd);
  return stream;
}

int FileIo::Close(FILE* stream) {
  const int flushed = fflush(stream);
  const int closed = fclose(stream);
  return flushed != 0 ? flushed : closed;
}

int FileIo::Seek(FILE* stream, long long offset) { return fseeko(stream, static_cast<off_t>(offset), SEEK_SET); }

long long FileIo::Size(FILE* stream) {
  if (fseeko(stream, 0, SEEK_END) != 0) return -1;
  return static_cast<long long>(ftello(stream));
}

// An empty transfer may come with a null buffer, which fread and fwrite
// must not be given: it does nothing.
long long FileIo::Read(FILE* stream, void* data, size_t length) {
  if (length == 0) return 0;
  const size_t count = fread(data, 1, length, stream);
  return count == 0 && ferror(stream) ? -1 : static_cast<long long>(count);
}

long long FileIo::ReadAt(FILE* stream, void* data, size_t length, long long offset) {
  return static_cast<long long>(pread(fileno(stream), data, length, static_cast<off_t>(offset)));
}

size_t FileIo::Write(FILE* stream, const void* data, size_t length) {
  return length == 0 ? 0 : fwrite(data, 1, length, stream);
}

int FileIo::Flush(FILE* stream) { return fflush(stream); }

int FileIo::Truncate(FILE* stream, long long length) {
  return ftruncate(fileno(stream), static_cast<off_t>(length));
}

int FileIo::Sync(FILE* stream) {
  if (fflush(stream) != 0) return -1;
  return SyncToDisk(fileno(stream)) ? 0 : -1;
}

int FileIo::Rename(const std::string& from, const std::string& to) { return rename(from.c_str(), to.c_str()); }

int FileIo::Remove(const std::string& path) { return remove(path.c_str()); }

bool FileIo::Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode));
}

long long FileIo::DiskBytesAt(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_blocks) * 512 : -1;
}

FileIo& CacheFileIo() { return *current_io.load(std::memory_order_acquire); }

FileIo* SetCacheFileIoForTesting(FileIo* io) {
  FileIo* previous = current_io.exchange(io != nullptr ? io : &real_io, std::memory_order_acq_rel);
  return previous == &real_io ? nullptr : previous;
}
