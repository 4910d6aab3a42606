// The file operations of the cache files, behind one seam.
//
// Every open, read, write, flush, truncate, size query and removal of a cache
// file goes through the FileIo that CacheFileIo() returns: the stdio/POSIX
// calls by default. A test derives from FileIo, overrides the calls it wants
// to break (a short write, ENOSPC, EIO, a file that vanished) and passes the
// rest on to the base class, so faults are injected without root, without a
// small file system and without timing. Streams stay stdio streams: a
// wrapper sees and forwards the same FILE* the real calls use.
//
// Failures are reported the way the underlying calls report them, with
// errno set: a null stream, a short count, -1 or a non-zero result.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

class FileIo {
 public:
  virtual ~FileIo() = default;

  // fopen; a file it creates gets mode 0600.
  virtual FILE* Open(const std::string& path, const char* mode);
  // fflush then fclose; non-zero when either failed.
  virtual int Close(FILE* stream);
  // Moves the stream's position to `offset`; 0 on success.
  virtual int Seek(FILE* stream, long long offset);
  // Length of the file behind the stream (moves the position to its end);
  // -1 on failure.
  virtual long long Size(FILE* stream);
  // fread at the current position: the count read (short at the end of the
  // file), or -1 when nothing could be read for an error.
  virtual long long Read(FILE* stream, void* data, size_t length);
  // A positioned read that leaves the stream's position alone (pread on its
  // descriptor): the count read, 0 at the end, -1 on failure.
  virtual long long ReadAt(FILE* stream, void* data, size_t length, long long offset);
  // fwrite at the current position; the count written (into the buffer).
  virtual size_t Write(FILE* stream, const void* data, size_t length);
  // fflush; 0 on success.
  virtual int Flush(FILE* stream);
  // Cuts or extends the file to `length` bytes (ftruncate on its
  // descriptor; bytes still in the stream's buffer are not flushed first);
  // 0 on success.
  virtual int Truncate(FILE* stream, long long length);
  // fflush, then the file's bytes to stable storage (see SyncToDisk); 0 on
  // success.
  virtual int Sync(FILE* stream);
  // rename, replacing `to`; 0 on success.
  virtual int Rename(const std::string& from, const std::string& to);
  // remove; 0 on success.
  virtual int Remove(const std::string& path);
  // True when `path` names a regular file or a directory.
  virtual bool Exists(const std::string& path);
  // Bytes the file at `path` occupies on disk, as du counts them (its
  // allocated blocks: a hole costs nothing, a 13-byte file one block); -1
  // when it cannot be read.
  virtual long long DiskBytesAt(const std::string& path);
};

// The FileIo every cache file uses. Safe on any thread.
FileIo& CacheFileIo();

// Makes `io` the FileIo of every later call (null: the real calls again) and
// returns the one it replaces. `io` must outlive its use; tests install a
// wrapper before opening caches and restore the old one after closing them.
FileIo* SetCacheFileIoForTesting(FileIo* io);
