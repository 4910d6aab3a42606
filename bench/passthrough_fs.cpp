// passthrough_fs SOURCE_DIR MOUNTPOINT [-o OPTION]...: mounts a local
// directory read-only through FUSE and nothing else, so that the client
// benchmark can tell what FUSE itself costs on this machine. It runs in the
// foreground until it is unmounted or signalled.
//
// The FUSE settings are korvmount's (client/fuse_volume.cpp): the same
// high-level API and version, the multi-threaded loop, attributes trusted for
// a second, no kernel page cache kept across opens (kernel_cache=0,
// keep_cache=0) and no direct_io, so both go through the same kernel path and
// differ only in what a read does in user space: here one pread on the file.
#define FUSE_USE_VERSION 31
#include <fuse.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const std::string& Source() { return *static_cast<const std::string*>(fuse_get_context()->private_data); }

std::string Under(const char* path) { return Source() + path; }

void* Init(struct fuse_conn_info*, struct fuse_config* config) {
  config->attr_timeout = 1.0;
  config->entry_timeout = 1.0;
  config->negative_timeout = 0;
  config->kernel_cache = 0;
  return fuse_get_context()->private_data;
}

int GetAttr(const char* path, struct stat* st, struct fuse_file_info*) {
  if (lstat(Under(path).c_str(), st) != 0) return -errno;
  st->st_mode &= ~static_cast<mode_t>(0222);  // the mount is read-only: the modes say so
  return 0;
}

int ReadDir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, struct fuse_file_info*,
            enum fuse_readdir_flags) {
  DIR* dir = opendir(Under(path).c_str());
  if (dir == nullptr) return -errno;
  while (struct dirent* entry = readdir(dir)) {
    struct stat st;
    std::memset(&st, 0, sizeof(st));
    st.st_ino = entry->d_ino;
    st.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
    if (fill(buffer, entry->d_name, &st, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) break;
  }
  closedir(dir);
  return 0;
}

int Open(const char* path, struct fuse_file_info* fi) {
  if ((fi->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
  const int fd = open(Under(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -errno;
  fi->direct_io = 0;
  fi->keep_cache = 0;
  fi->fh = static_cast<uint64_t>(fd);
  return 0;
}

int Read(const char*, char* buffer, size_t size, off_t offset, struct fuse_file_info* fi) {
  const ssize_t got = pread(static_cast<int>(fi->fh), buffer, size, offset);
  return got < 0 ? -errno : static_cast<int>(got);
}

int Release(const char*, struct fuse_file_info* fi) {
  close(static_cast<int>(fi->fh));
  return 0;
}

int StatFs(const char*, struct statvfs* st) { return statvfs(Source().c_str(), st) == 0 ? 0 : -errno; }

struct fuse_operations MakeOperations() {
  struct fuse_operations operations;
  std::memset(&operations, 0, sizeof(operations));
  operations.init = Init;
  operations.getattr = GetAttr;
  operations.readdir = ReadDir;
  operations.open = Open;
  operations.read = Read;
  operations.release = Release;
  operations.statfs = StatFs;
  return operations;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: passthrough_fs SOURCE_DIR MOUNTPOINT [-o OPTION]...\n");
    return 2;
  }
  char resolved[PATH_MAX];
  if (realpath(argv[1], resolved) == nullptr) {
    fprintf(stderr, "passthrough_fs: %s: %s\n", argv[1], strerror(errno));
    return 1;
  }
  std::string source = resolved;
  const std::string mountpoint = argv[2];

  std::vector<std::string> fuse_argv = {"passthrough_fs", "-o", "fsname=passthrough:" + source, "-o",
                                        "subtype=passthrough_fs", "-o", "ro"};
  for (int i = 3; i < argc; ++i) fuse_argv.push_back(argv[i]);
  std::vector<char*> pointers;
  for (std::string& arg : fuse_argv) pointers.push_back(&arg[0]);
  struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(pointers.size()), pointers.data());

  static const struct fuse_operations operations = MakeOperations();
  struct fuse* fuse = fuse_new(&args, &operations, sizeof(operations), &source);
  if (fuse == nullptr) {
    fprintf(stderr, "passthrough_fs: bad FUSE options\n");
    return 1;
  }
  if (fuse_mount(fuse, mountpoint.c_str()) != 0) {
    fprintf(stderr, "passthrough_fs: cannot mount on %s\n", mountpoint.c_str());
    fuse_destroy(fuse);
    return 1;
  }
  int result = 1;
  struct fuse_session* session = fuse_get_session(fuse);
  if (fuse_set_signal_handlers(session) == 0) {
    fuse_loop_mt(fuse, 0);
    result = 0;
    fuse_remove_signal_handlers(session);
  }
  fuse_unmount(fuse);
  fuse_destroy(fuse);
  fuse_opt_free_args(&args);
  return result;
}
