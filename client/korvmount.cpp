// korvmount ORIGIN MOUNTPOINT [options]: mounts the files of an HTTP origin
// (or a local directory) as a local volume, with libkorvcache as its disk
// cache.
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "command_line.h"
#include "http_origin.h"
#include "fuse_volume.h"
#include "remote_drive.h"
#include "stderr_log.h"

namespace {

void PrintUsage(FILE* out) {
  fprintf(out,
          "usage: korvmount ORIGIN MOUNTPOINT [options]\n"
          "  ORIGIN is an http:// URL of a WebDAV server that answers Range requests\n"
          "  (nginx with its dav and dav-ext modules; without dav-ext, directories are\n"
          "  listed as its JSON autoindex), or a local directory.\n"
          "options:\n%s"
          "  -f, --foreground    stay in the foreground, messages on standard error\n"
          "                      (otherwise they go to CACHE_DIR/korvmount.log)\n"
          "  -o OPTION           a FUSE mount option, e.g. allow_other (which always comes\n"
          "                      with default_permissions: the kernel checks each user)\n"
          "df shows the origin's space where it reports one (a WebDAV quota, the file system\n"
          "of a directory origin), otherwise the cache's limit and what the cache leaves of it.\n"
          "unmount with: fusermount3 -u MOUNTPOINT\n",
          kCommonOptionsHelp);
}

// The daemon runs in "/": every path it keeps must be absolute.
std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof(cwd)) == nullptr) return path;
  return std::string(cwd) + "/" + path;
}

// Opening the cache directory once before the daemon forks reports a bad
// directory on the terminal; the quota thread it starts ends with it. The
// files an earlier run kept must outlive this release too.
bool CheckCacheDirectory(const DriveOptions& options) {
  ICache_V2* cache = nullptr;
  const unsigned int status = InitCache(options.cache_dir.c_str(), options.limit, &cache);
  if (status == kOk && options.keep_cache) cache->SetConfiguration(R"({"cache":{"keep":1}})");
  if (status == kOk) ReleaseCache(options.cache_dir.c_str());
  if (status == kOk) return true;
  fprintf(stderr, "korvmount: cannot use cache directory %s (status %u%s)\n", options.cache_dir.c_str(), status,
          status == kErrLimitTooSmall ? ": the limit must be at least 64M" : "");
  return false;
}

// Linux would stack a second mount on a busy mount point without a word;
// refusing says what is wrong instead.
bool CheckMountPoint(const std::string& mountpoint) {
  struct stat st;
  if (stat(mountpoint.c_str(), &st) != 0) {
    if (errno == ENOTCONN) {
      fprintf(stderr, "korvmount: %s is a mount whose file system has ended; unmount it with fusermount3 -u %s\n",
              mountpoint.c_str(), mountpoint.c_str());
    } else {
      fprintf(stderr, "korvmount: mount point %s: %s\n", mountpoint.c_str(), strerror(errno));
    }
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    fprintf(stderr, "korvmount: mount point %s is not a directory\n", mountpoint.c_str());
    return false;
  }
  struct stat parent;
  if (stat((mountpoint + "/..").c_str(), &parent) == 0 && parent.st_dev != st.st_dev) {
    fprintf(stderr, "korvmount: mount point %s is busy: something is mounted there already\n", mountpoint.c_str());
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  ClientOptions options;
  std::string error;
  if (!ParseClientOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "korvmount: %s\n", error.c_str());
    PrintUsage(stderr);
    return 2;
  }
  if (options.help) {
    PrintUsage(stdout);
    return 0;
  }
  if (options.positional.size() != 2) {
    PrintUsage(stderr);
    return 2;
  }
  const std::string where = IsHttpUrl(options.positional[0]) ? options.positional[0]
                                                                            : Absolute(options.positional[0]);
  const std::string mountpoint = Absolute(options.positional[1]);
  options.drive.cache_dir = Absolute(options.drive.cache_dir);

  curl_global_init(CURL_GLOBAL_DEFAULT);
  options.origin.warn = [](const std::string& message) { ClientLog(LOGLEVEL_WARNING, "%s", message.c_str()); };
  std::unique_ptr<Origin> origin = MakeOrigin(where, options.origin, &error);
  if (!origin) {
    fprintf(stderr, "korvmount: %s\n", error.c_str());
    return 1;
  }
  std::vector<OriginEntry> root;
  const OriginStatus reached = origin->List("/", &root, &error);
  if (reached != OriginStatus::kOk) {
    fprintf(stderr, "korvmount: origin %s: %s: %s\n", where.c_str(), OriginStatusText(reached), error.c_str());
    return 1;
  }
  if (!CheckMountPoint(mountpoint)) return 1;
  if (!CheckCacheDirectory(options.drive)) return 1;

  std::vector<std::string> fuse_argv = {"korvmount", "-o", "fsname=korvcache:" + where, "-o", "subtype=korvmount"};
  for (const std::string& option : options.fuse_options) {
    fuse_argv.push_back("-o");
    fuse_argv.push_back(option);
  }
  std::vector<char*> pointers;
  for (std::string& arg : fuse_argv) pointers.push_back(&arg[0]);
  struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(pointers.size()), pointers.data());

  RemoteDrive drive(std::move(origin), options.drive);
  struct fuse* fuse = fuse_new(&args, VolumeOperations(), sizeof(struct fuse_operations), &drive);
  if (fuse == nullptr) {
    fprintf(stderr, "korvmount: bad FUSE options\n");
    return 1;
  }
  if (fuse_mount(fuse, mountpoint.c_str()) != 0) {
    fprintf(stderr, "korvmount: cannot mount on %s (already mounted, busy, or FUSE not allowed here)\n",
            mountpoint.c_str());
    fuse_destroy(fuse);
    return 1;
  }
  if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
    fuse_unmount(fuse);
    fuse_destroy(fuse);
    return 1;
  }
  if (!options.foreground) {
    // The daemon's standard error is /dev/null: messages a person must see
    // (failed uploads, kept data) go to a log beside the cache instead.
    const std::string log_path = options.drive.cache_dir + "/korvmount.log";
    const int log_fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log_fd >= 0) {
      dup2(log_fd, STDERR_FILENO);
      close(log_fd);
    }
  }
  int result = 1;
  if (!drive.Start(&error)) {
    fprintf(stderr, "korvmount: %s\n", error.c_str());
  } else {
    struct fuse_session* session = fuse_get_session(fuse);
    if (fuse_set_signal_handlers(session) == 0) {
      // A signal or an unmount ends the loop; either is a clean end.
      fuse_loop_mt(fuse, 0);
      result = 0;
      fuse_remove_signal_handlers(session);
    }
  }
  fuse_unmount(fuse);
  drive.Shutdown();
  fuse_destroy(fuse);
  fuse_opt_free_args(&args);
  CloseHttpConnectionsOfThisThread();
  curl_global_cleanup();
  return result;
}
