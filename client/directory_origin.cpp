#include "directory_origin.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "common/platform.h"

namespace {

std::string ErrnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// A path that would leave the root (EXDEV, ELOOP) names nothing on this origin.
OriginStatus StatusOfErrno() {
  switch (errno) {
    case ENOENT: case ENOTDIR: case EXDEV: case ELOOP: return OriginStatus::kNotFound;
    case ENOTEMPTY: return OriginStatus::kNotEmpty;
    default: return OriginStatus::kFailed;
  }
}

long long MtimeNanoseconds(const struct stat& st) {
#if defined(__APPLE__)
  return static_cast<long long>(st.st_mtimespec.tv_sec) * 1000000000LL + st.st_mtimespec.tv_nsec;
#else
  return static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
#endif
}

std::string ValidatorOf(const struct stat& st) {
  return std::to_string(static_cast<long long>(st.st_size)) + ":" + std::to_string(MtimeNanoseconds(st));
}

// A descriptor closed with its scope.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Every path is resolved beneath the root's descriptor (common/platform.h):
// neither "..", nor an absolute path, nor a symbolic link planted inside
// leads a caller to files outside the served directory.
class DirectoryOrigin : public Origin {
 public:
  DirectoryOrigin(std::string root, int root_fd, const OriginOptions& options)
      : root_(std::move(root)), root_fd_(root_fd), options_(options) {}
  ~DirectoryOrigin() override { close(root_fd_); }

  std::string Describe() const override { return root_; }

  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) override {
    Delay();
    Descriptor fd(OpenBeneath(root_fd_, Relative(path), O_RDONLY | O_DIRECTORY));
    DIR* dir = fd.get() < 0 ? nullptr : fdopendir(fd.get());
    if (dir == nullptr) return Failure(path, error);
    fd.release();  // closedir closes it
    entries->clear();
    while (struct dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == ".." || IsUploadTemporary(name)) continue;
      struct stat st;
      if (fstatat(dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // vanished meanwhile
      // A link is listed as what it leads to, when that is inside the root.
      if (S_ISLNK(st.st_mode) && !StatBeneath(root_fd_, Relative(Join(path, name)), &st)) continue;
      if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) continue;
      OriginEntry item;
      item.name = name;
      item.is_directory = S_ISDIR(st.st_mode);
      item.size = item.is_directory ? 0 : static_cast<long long>(st.st_size);
      item.mtime = static_cast<long long>(st.st_mtime);
      item.validator = ValidatorOf(st);
      entries->push_back(std::move(item));
    }
    closedir(dir);
    return OriginStatus::kOk;
  }

  OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) override {
    Delay();
    struct stat st;
    if (!StatBeneath(root_fd_, Relative(path), &st)) return Failure(path, error);
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
      *error = root_ + path + " is neither a file nor a directory";
      return OriginStatus::kNotFound;
    }
    info->is_directory = S_ISDIR(st.st_mode);
    info->size = info->is_directory ? 0 : static_cast<long long>(st.st_size);
    info->mtime = static_cast<long long>(st.st_mtime);
    info->validator = ValidatorOf(st);
    return OriginStatus::kOk;
  }

  OriginStatus ReadRange(const std::string& path, long long offset, long long length, const std::string& validator,
                         const ByteSink& sink, std::string* error) override {
    Delay();
    Descriptor fd(OpenBeneath(root_fd_, Relative(path), O_RDONLY));
    if (fd.get() < 0) return Failure(path, error);
    return ReadOpen(fd.get(), offset, length, validator, sink, error);
  }

  OriginStatus Upload(const std::string& path, long long size, const ByteSource& source, std::string* error) override {
    Delay();
    std::string name;
    Descriptor parent(OpenParentBeneath(root_fd_, Relative(path), &name));
    if (parent.get() < 0) return Failure(path, error);
    const std::string temporary = kUploadPrefix + RandomUUID();
    Descriptor fd(openat(parent.get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (fd.get() < 0) return Failure(path, error);
    std::vector<char> buffer(1 << 20);
    long long done = 0;
    bool ok = true;
    while (ok && done < size) {
      const long long got = source(done, buffer.data(), static_cast<size_t>(std::min<long long>(size - done, buffer.size())));
      if (got <= 0) {
        *error = "reading the local copy failed at byte " + std::to_string(done);
        ok = false;
        break;
      }
      if (!WriteAll(fd.get(), buffer.data(), static_cast<size_t>(got))) {
        *error = ErrnoText(root_ + path);
        ok = false;
      }
      done += got;
    }
    // The mode is set explicitly: the process's umask must not decide it.
    if (ok && (fchmod(fd.get(), 0644) != 0 || fsync(fd.get()) != 0)) {
      *error = ErrnoText(root_ + path);
      ok = false;
    }
    if (ok && renameat(parent.get(), temporary.c_str(), parent.get(), name.c_str()) != 0) {
      *error = ErrnoText(root_ + path);
      ok = false;
    }
    if (!ok) unlinkat(parent.get(), temporary.c_str(), 0);
    return ok ? OriginStatus::kOk : OriginStatus::kFailed;
  }

  OriginStatus Remove(const std::string& path, std::string* error) override {
    return AtName(path, error, [](int dir, const char* name) { return unlinkat(dir, name, 0); });
  }
  OriginStatus MakeDirectory(const std::string& path, std::string* error) override {
    return AtName(path, error, [](int dir, const char* name) { return mkdirat(dir, name, 0755); });
  }
  OriginStatus RemoveDirectory(const std::string& path, std::string* error) override {
    return AtName(path, error, [](int dir, const char* name) {
      const int result = unlinkat(dir, name, AT_REMOVEDIR);
      if (result != 0 && errno == EEXIST) errno = ENOTEMPTY;  // POSIX allows either
      return result;
    });
  }
  OriginStatus Rename(const std::string& from, const std::string& to, std::string* error) override {
    Delay();
    std::string from_name, to_name;
    Descriptor from_parent(OpenParentBeneath(root_fd_, Relative(from), &from_name));
    if (from_parent.get() < 0) return Failure(from, error);
    Descriptor to_parent(OpenParentBeneath(root_fd_, Relative(to), &to_name));
    if (to_parent.get() < 0) return Failure(to, error);
    if (renameat(from_parent.get(), from_name.c_str(), to_parent.get(), to_name.c_str()) != 0) {
      return Failure(from + " to " + to, error);
    }
    return OriginStatus::kOk;
  }
  OriginStatus SetModificationTime(const std::string& path, long long mtime, std::string* error) override {
    return AtName(path, error, [mtime](int dir, const char* name) {
      struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
      return utimensat(dir, name, times, AT_SYMLINK_NOFOLLOW);
    });
  }
  bool Space(long long* used, long long* available) override { return VolumeSpace(root_, used, available); }

 private:
  static constexpr const char* kUploadPrefix = ".korv-upload-";

  static bool IsUploadTemporary(const std::string& name) { return name.rfind(kUploadPrefix, 0) == 0; }

  static bool WriteAll(int fd, const char* data, size_t length) {
    while (length > 0) {
      ssize_t n = write(fd, data, length);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      data += n;
      length -= static_cast<size_t>(n);
    }
    return true;
  }

  // The origin's paths start with "/"; beneath the root they are relative.
  static std::string Relative(const std::string& path) { return path.empty() ? path : path.substr(1); }
  static std::string Join(const std::string& directory, const std::string& name) {
    return directory == "/" ? "/" + name : directory + "/" + name;
  }

  OriginStatus Failure(const std::string& path, std::string* error) const {
    const OriginStatus status = StatusOfErrno();
    *error = ErrnoText(root_ + path);
    return status;
  }

  // Runs `call` on the last component of `path` in its parent directory: the
  // call acts on that name itself and follows no link there.
  template <typename Call>
  OriginStatus AtName(const std::string& path, std::string* error, Call call) {
    Delay();
    std::string name;
    Descriptor parent(OpenParentBeneath(root_fd_, Relative(path), &name));
    if (parent.get() < 0 || call(parent.get(), name.c_str()) != 0) return Failure(path, error);
    return OriginStatus::kOk;
  }

  void Delay() const {
    if (options_.latency_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(options_.latency_ms));
  }

  // Paces delivery so that `delivered` bytes take at least their share of a
  // second at the configured bandwidth.
  void Pace(std::chrono::steady_clock::time_point start, long long delivered) const {
    if (options_.bandwidth <= 0) return;
    const auto due = start + std::chrono::microseconds(delivered * 1000000LL / options_.bandwidth);
    std::this_thread::sleep_until(due);
  }

  OriginStatus ReadOpen(int fd, long long offset, long long length, const std::string& validator,
                        const ByteSink& sink, std::string* error) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
      *error = ErrnoText("fstat");
      return OriginStatus::kFailed;
    }
    if (!validator.empty() && ValidatorOf(st) != validator) {
      *error = "the file changed on the origin";
      return OriginStatus::kChanged;
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<char> buffer(256 * 1024);
    long long done = 0;
    while (done < length) {
      const size_t want = static_cast<size_t>(std::min<long long>(length - done, buffer.size()));
      ssize_t n = pread(fd, buffer.data(), want, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        *error = ErrnoText("read");
        return OriginStatus::kFailed;
      }
      if (n == 0) break;  // end of file
      Pace(start, done + n);
      if (!sink(buffer.data(), static_cast<size_t>(n))) {
        *error = "the receiver stopped the transfer";
        return OriginStatus::kFailed;
      }
      done += n;
    }
    return OriginStatus::kOk;
  }

  const std::string root_;
  const int root_fd_;  // the served directory, opened once
  const OriginOptions options_;
};

}  // namespace

std::unique_ptr<Origin> MakeDirectoryOrigin(const std::string& directory, const OriginOptions& options,
                                            std::string* error) {
  std::string root = directory;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  struct stat st;
  if (root.empty() || stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "origin " + directory + " is not a directory";
    return nullptr;
  }
  const int root_fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root_fd < 0) {
    *error = ErrnoText("origin " + directory);
    return nullptr;
  }
  return std::make_unique<DirectoryOrigin>(root, root_fd, options);
}
