// korvcat ORIGIN-FILE [options]: reads one remote file through the cache to
// standard output. The same library path as korvmount, without FUSE: the
// fallback where FUSE cannot be used.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "command_line.h"
#include "http_origin.h"
#include "remote_drive.h"
#include "sha256.h"

namespace {

constexpr size_t kReadSize = 1 << 20;

void PrintUsage(FILE* out) {
  fprintf(out,
          "usage: korvcat ORIGIN-FILE [options] > FILE\n"
          "  ORIGIN-FILE is an http:// URL of a file, or a local file (the directory is the origin).\n"
          "options:\n%s"
          "  --verify SHA256     fail unless the bytes read have this SHA-256 digest\n"
          "  --progress          show the progress bar on standard error even when it is no terminal\n"
          "                      (it is shown on a terminal anyway)\n",
          kCommonOptionsHelp);
}

bool WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t n = write(fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

class Progress {
 public:
  Progress(long long total, bool forced)
      : total_(total), start_(std::chrono::steady_clock::now()), shown_(start_),
        enabled_(forced || isatty(STDERR_FILENO) != 0) {}

  void Show(long long done, bool last) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!last && now - shown_ < std::chrono::milliseconds(100)) return;
    shown_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double percent = total_ > 0 ? 100.0 * static_cast<double>(done) / static_cast<double>(total_) : 100.0;
    const int filled = static_cast<int>(percent / 5);
    char bar[21];
    for (int i = 0; i < 20; ++i) bar[i] = i < filled ? '#' : '.';
    bar[20] = '\0';
    fprintf(stderr, "\r[%s] %5.1f%%  %.1f of %.1f MiB  %.1f MB/s ", bar, percent, static_cast<double>(done) / 1048576.0,
            static_cast<double>(total_) / 1048576.0, seconds > 0 ? static_cast<double>(done) / 1e6 / seconds : 0.0);
    if (last) fputc('\n', stderr);
  }

 private:
  const long long total_;
  const std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point shown_;
  const bool enabled_;
};

int Copy(RemoteDrive& drive, const std::string& path, const std::string& verify, bool progress_forced) {
  std::unique_ptr<OpenHandle> handle;
  const int opened = drive.Open(path, O_RDONLY, &handle);
  if (opened != 0) {
    fprintf(stderr, "korvcat: %s: %s\n", path.c_str(), strerror(-opened));
    return 1;
  }
  const long long size = handle->file->size.load(std::memory_order_relaxed);
  std::vector<char> buffer(kReadSize);
  Sha256 digest;
  Progress progress(size, progress_forced);
  long long done = 0;
  int result = 0;
  while (done < size) {
    const long long got = drive.Read(handle.get(), buffer.data(), buffer.size(), done);
    if (got < 0) {
      fprintf(stderr, "\nkorvcat: %s: read at byte %lld: %s\n", path.c_str(), done, strerror(static_cast<int>(-got)));
      result = 1;
      break;
    }
    if (got == 0) {
      fprintf(stderr, "\nkorvcat: %s: ended at byte %lld of %lld\n", path.c_str(), done, size);
      result = 1;
      break;
    }
    if (!WriteAll(STDOUT_FILENO, buffer.data(), static_cast<size_t>(got))) {
      fprintf(stderr, "\nkorvcat: writing standard output: %s\n", strerror(errno));
      result = 1;
      break;
    }
    if (!verify.empty()) digest.Update(buffer.data(), static_cast<size_t>(got));
    done += got;
    progress.Show(done, done == size);
  }
  drive.Release(std::move(handle));
  if (result == 0 && !verify.empty()) {
    const std::string actual = digest.HexDigest();
    if (strcasecmp(actual.c_str(), verify.c_str()) != 0) {
      fprintf(stderr, "korvcat: %s: SHA-256 %s, expected %s\n", path.c_str(), actual.c_str(), verify.c_str());
      return 1;
    }
    fprintf(stderr, "korvcat: %s: SHA-256 verified\n", path.c_str());
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  ClientOptions options;
  std::string error;
  if (!ParseClientOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "korvcat: %s\n", error.c_str());
    PrintUsage(stderr);
    return 2;
  }
  if (options.help) {
    PrintUsage(stdout);
    return 0;
  }
  std::string where, path;
  if (options.positional.size() != 1 || !SplitOriginFile(options.positional[0], &where, &path)) {
    PrintUsage(stderr);
    return 2;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::unique_ptr<Origin> origin = MakeOrigin(where, options.origin, &error);
  if (!origin) {
    fprintf(stderr, "korvcat: %s\n", error.c_str());
    return 1;
  }
  int result = 1;
  {
    RemoteDrive drive(std::move(origin), options.drive);
    if (!drive.Start(&error)) {
      fprintf(stderr, "korvcat: %s\n", error.c_str());
    } else {
      result = Copy(drive, path, options.verify_sha256, options.progress);
    }
  }
  CloseHttpConnectionsOfThisThread();
  curl_global_cleanup();
  return result;
}
