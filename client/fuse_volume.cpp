#include "fuse_volume.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "refusal_log.h"

namespace {

RemoteDrive* Drive() { return static_cast<RemoteDrive*>(fuse_get_context()->private_data); }

OpenHandle* HandleOf(struct fuse_file_info* fi) {
  return fi != nullptr ? reinterpret_cast<OpenHandle*>(static_cast<uintptr_t>(fi->fh)) : nullptr;
}

void FillStat(const FileAttributes& attributes, struct stat* st) {
  std::memset(st, 0, sizeof(*st));
  st->st_uid = getuid();
  st->st_gid = getgid();
  if (attributes.is_directory) {
    st->st_mode = S_IFDIR | 0755;
    st->st_nlink = 2;
  } else {
    st->st_mode = S_IFREG | (attributes.read_only ? 0444 : 0644);
    st->st_nlink = 1;
    st->st_size = static_cast<off_t>(attributes.size);
    st->st_blocks = static_cast<blkcnt_t>((attributes.size + 511) / 512);
  }
  st->st_blksize = 512 * 1024;
  st->st_mtime = static_cast<time_t>(attributes.mtime);
  st->st_atime = st->st_mtime;
  st->st_ctime = st->st_mtime;
}

void* Init(struct fuse_conn_info*, struct fuse_config* config) {
  // Attributes are trusted as long as the drive trusts its listings; the
  // kernel's page cache is dropped at every open so that a changed origin
  // file is never read from stale pages.
  const double window = static_cast<double>(Drive()->options().listing_ttl_ms) / 1000.0;
  config->attr_timeout = window;
  config->entry_timeout = window;
  config->negative_timeout = 0;
  config->kernel_cache = 0;
  return fuse_get_context()->private_data;
}

int GetAttr(const char* path, struct stat* st, struct fuse_file_info*) {
  FileAttributes attributes;
  const int result = Drive()->GetAttributes(path, &attributes);
  if (result == 0) FillStat(attributes, st);
  return result;
}

int ReadDir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, struct fuse_file_info*,
            enum fuse_readdir_flags) {
  std::vector<OriginEntry> entries;
  const int result = Drive()->ListDirectory(path, &entries);
  if (result != 0) return result;
  fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  for (const OriginEntry& entry : entries) {
    struct stat st;
    FileAttributes attributes;
    attributes.is_directory = entry.is_directory;
    attributes.size = entry.size;
    attributes.mtime = entry.mtime;
    FillStat(attributes, &st);
    if (fill(buffer, entry.name.c_str(), &st, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) break;
  }
  return 0;
}

int OpenWith(const char* path, int flags, struct fuse_file_info* fi) {
  std::unique_ptr<OpenHandle> handle;
  const int result = Drive()->Open(path, flags, &handle);
  if (result != 0) return result;
  // The statistics change between reads: never serve them from the kernel's
  // cache, and never let its listed size cut them short.
  fi->direct_io = handle->file ? 0 : 1;
  fi->keep_cache = 0;
  fi->fh = reinterpret_cast<uintptr_t>(handle.release());
  return 0;
}

int Open(const char* path, struct fuse_file_info* fi) { return OpenWith(path, fi->flags, fi); }

int Create(const char* path, mode_t, struct fuse_file_info* fi) { return OpenWith(path, fi->flags | O_CREAT, fi); }

int Read(const char*, char* buffer, size_t size, off_t offset, struct fuse_file_info* fi) {
  return static_cast<int>(Drive()->Read(HandleOf(fi), buffer, size, offset));
}

int Write(const char*, const char* buffer, size_t size, off_t offset, struct fuse_file_info* fi) {
  return static_cast<int>(Drive()->Write(HandleOf(fi), buffer, size, offset));
}

int Truncate(const char* path, off_t size, struct fuse_file_info* fi) {
  return TellRefusal("truncate", path, Drive()->Truncate(path, HandleOf(fi), size));
}

int Flush(const char*, struct fuse_file_info* fi) { return Drive()->Flush(HandleOf(fi)); }

int Fsync(const char*, int, struct fuse_file_info* fi) { return Drive()->Sync(HandleOf(fi)); }

int Release(const char*, struct fuse_file_info* fi) {
  return Drive()->Release(std::unique_ptr<OpenHandle>(HandleOf(fi)));
}

int Unlink(const char* path) { return TellRefusal("unlink", path, Drive()->Unlink(path)); }

int Rename(const char* from, const char* to, unsigned int flags) {
  const std::string names = std::string(from) + " to " + to;
  // No origin swaps two names at once.
  if ((flags & RENAME_EXCHANGE) != 0) return TellRefusal("rename (exchange)", names, -EINVAL);
  if ((flags & ~static_cast<unsigned int>(RENAME_NOREPLACE)) != 0) return TellRefusal("rename", names, -EINVAL);
  return TellRefusal("rename", names, Drive()->Rename(from, to, (flags & RENAME_NOREPLACE) != 0));
}

int MakeDirectory(const char* path, mode_t) { return TellRefusal("mkdir", path, Drive()->MakeDirectory(path)); }

int RemoveDirectory(const char* path) { return TellRefusal("rmdir", path, Drive()->RemoveDirectory(path)); }

// Only the modification time is the origin's to keep; the access time is not kept anywhere.
int Utimens(const char* path, const struct timespec times[2], struct fuse_file_info*) {
  const struct timespec now = {0, UTIME_NOW};
  const struct timespec& modified = times != nullptr ? times[1] : now;
  if (modified.tv_nsec == UTIME_OMIT) return 0;
  return TellRefusal("set the time of", path,
                     Drive()->SetModificationTime(path, static_cast<long long>(modified.tv_sec),
                                                  modified.tv_nsec == UTIME_NOW));
}

// Owners and permission bits are not the origin's to keep: changing them is
// accepted and changes nothing, as on other network file systems.
int Chmod(const char*, mode_t, struct fuse_file_info*) { return 0; }
int Chown(const char*, uid_t, gid_t, struct fuse_file_info*) { return 0; }

// Neither kind of link can be stored on the origin.
int Symlink(const char*, const char* path) { return TellRefusal("symlink", path, -EPERM); }
int Link(const char*, const char* path) { return TellRefusal("link", path, -EPERM); }

int StatFs(const char*, struct statvfs* st) { return Drive()->StatFs(st); }

struct fuse_operations MakeOperations() {
  struct fuse_operations operations;
  std::memset(&operations, 0, sizeof(operations));
  operations.init = Init;
  operations.getattr = GetAttr;
  operations.readdir = ReadDir;
  operations.open = Open;
  operations.create = Create;
  operations.read = Read;
  operations.write = Write;
  operations.truncate = Truncate;
  operations.flush = Flush;
  operations.fsync = Fsync;
  operations.release = Release;
  operations.unlink = Unlink;
  operations.rename = Rename;
  operations.mkdir = MakeDirectory;
  operations.rmdir = RemoveDirectory;
  operations.utimens = Utimens;
  operations.chmod = Chmod;
  operations.chown = Chown;
  operations.symlink = Symlink;
  operations.link = Link;
  operations.statfs = StatFs;
  return operations;
}

}  // namespace

const struct fuse_operations* VolumeOperations() {
  static const struct fuse_operations operations = MakeOperations();
  return &operations;
}
