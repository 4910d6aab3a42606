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
#include <vector>

namespace {

std::string ErrnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

OriginStatus StatusOfErrno() { return errno == ENOENT || errno == ENOTDIR ? OriginStatus::kNotFound : OriginStatus::kFailed; }

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

class DirectoryOrigin : public Origin {
 public:
  DirectoryOrigin(std::string root, const OriginOptions& options) : root_(std::move(root)), options_(options) {}

  std::string Describe() const override { return root_; }

  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) override {
    Delay();
    const std::string full = Full(path);
    DIR* dir = opendir(full.c_str());
    if (dir == nullptr) {
      *error = ErrnoText(full);
      return StatusOfErrno();
    }
    entries->clear();
    while (struct dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == ".." || IsUploadTemporary(name)) continue;
      struct stat st;
      if (stat((full + "/" + name).c_str(), &st) != 0) continue;  // vanished meanwhile
      if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) continue;
      OriginEntry item;
      item.name = name;
      item.is_directory = S_ISDIR(st.st_mode);
      item.size = item.is_directory ? 0 : static_cast<long long>(st.st_size);
      item.mtime = static_cast<long long>(st.st_mtime);
      entries->push_back(std::move(item));
    }
    closedir(dir);
    return OriginStatus::kOk;
  }

  OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) override {
    Delay();
    struct stat st;
    const std::string full = Full(path);
    if (stat(full.c_str(), &st) != 0) {
      *error = ErrnoText(full);
      return StatusOfErrno();
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
    const std::string full = Full(path);
    int fd = open(full.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      *error = ErrnoText(full);
      return StatusOfErrno();
    }
    OriginStatus status = ReadOpen(fd, offset, length, validator, sink, error);
    close(fd);
    return status;
  }

  OriginStatus Upload(const std::string& path, long long size, const ByteSource& source, std::string* error) override {
    Delay();
    const std::string full = Full(path);
    const std::string::size_type slash = full.rfind('/');
    std::string temporary = full.substr(0, slash + 1) + kUploadPrefix + "XXXXXX";
    int fd = mkstemp(&temporary[0]);
    if (fd < 0) {
      *error = ErrnoText(temporary);
      return StatusOfErrno();
    }
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
      if (!WriteAll(fd, buffer.data(), static_cast<size_t>(got))) {
        *error = ErrnoText(temporary);
        ok = false;
      }
      done += got;
    }
    if (ok && (fchmod(fd, 0644) != 0 || fsync(fd) != 0)) {
      *error = ErrnoText(temporary);
      ok = false;
    }
    close(fd);
    if (ok && rename(temporary.c_str(), full.c_str()) != 0) {
      *error = ErrnoText(full);
      ok = false;
    }
    if (!ok) unlink(temporary.c_str());
    return ok ? OriginStatus::kOk : OriginStatus::kFailed;
  }

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

  std::string Full(const std::string& path) const { return path == "/" ? root_ : root_ + path; }

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

  OriginStatus Remove(const std::string&, std::string* error) override { return Unsupported(error); }
  OriginStatus MakeDirectory(const std::string&, std::string* error) override { return Unsupported(error); }
  OriginStatus RemoveDirectory(const std::string&, std::string* error) override { return Unsupported(error); }
  OriginStatus Rename(const std::string&, const std::string&, std::string* error) override {
    return Unsupported(error);
  }
  OriginStatus SetModificationTime(const std::string&, long long, std::string* error) override {
    return Unsupported(error);
  }
  bool Space(long long*, long long*) override { return false; }
  static OriginStatus Unsupported(std::string* error) {
    *error = "not supported by this origin";
    return OriginStatus::kUnsupported;
  }

  const std::string root_;
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
  return std::make_unique<DirectoryOrigin>(root, options);
}
