#include "write_recovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "stderr_log.h"

namespace {

// Why the bytes cannot go to the origin as they are; empty when they can.
std::string Obstacle(Origin* origin, const JournalRecord& record) {
  OriginFileInfo info;
  std::string error;
  const OriginStatus status = origin->Stat(record.path, &info, &error);
  if (record.is_new) {
    if (status == OriginStatus::kNotFound) return "";
    return status == OriginStatus::kOk ? "a file of that name appeared on the origin meanwhile"
                                       : std::string("the origin did not answer: ") + OriginStatusText(status);
  }
  OriginFileInfo based_on;
  based_on.size = record.size;
  based_on.mtime = record.mtime;
  based_on.validator = record.validator;
  if (status == OriginStatus::kOk && SameVersion(info, based_on)) return "";
  if (status == OriginStatus::kOk || status == OriginStatus::kNotFound) return "the origin's file changed meanwhile";
  return std::string("the origin did not answer: ") + OriginStatusText(status);
}

std::string Upload(Origin* origin, const std::string& path, const std::string& local) {
  const int fd = open(local.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) {
    if (fd >= 0) close(fd);
    return strerror(errno);
  }
  const ByteSource source = [fd](long long offset, char* buffer, size_t length) -> long long {
    const ssize_t got = pread(fd, buffer, length, offset);
    return got < 0 ? -1 : static_cast<long long>(got);
  };
  std::string error;
  const OriginStatus status = origin->Upload(path, st.st_size, source, &error);
  close(fd);
  if (status == OriginStatus::kOk) return "";
  return error.empty() ? std::string("upload: ") + OriginStatusText(status) : "upload: " + error;
}

// Moves `local` to unsaved/<path> (with ".1", ".2", ... where that is taken).
bool Keep(const std::string& cache_dir, const std::string& path, const std::string& local, std::string* kept) {
  namespace fs = std::filesystem;
  std::error_code error;
  const std::string target = cache_dir + "/unsaved" + path;
  fs::create_directories(fs::path(target).parent_path(), error);
  *kept = target;
  for (int n = 1; fs::exists(*kept, error) && n < 1000; ++n) *kept = target + "." + std::to_string(n);
  return rename(local.c_str(), kept->c_str()) == 0;
}

}  // namespace

void RecoverUnsavedWrites(Origin* origin, WriteJournal* journal) {
  for (const JournalRecord& record : journal->Leftovers()) {
    const std::string local = journal->cache_dir() + "/" + record.local_name;
    struct stat st;
    if (stat(local.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      ClientAlert("%s: changes made before a crash are lost: their copy %s is gone", record.path.c_str(),
                  local.c_str());
      journal->Remove(record.id);
      continue;
    }
    std::string why = Obstacle(origin, record);
    if (why.empty()) why = Upload(origin, record.path, local);
    if (why.empty()) {
      ClientLog(LOGLEVEL_WARNING, "%s: changes made before a crash uploaded (%lld bytes)", record.path.c_str(),
                static_cast<long long>(st.st_size));
      unlink(local.c_str());
    } else {
      std::string kept;
      if (Keep(journal->cache_dir(), record.path, local, &kept)) {
        ClientAlert("%s: changes made before a crash were not uploaded (%s); they are kept in %s",
                    record.path.c_str(), why.c_str(), kept.c_str());
      } else {
        ClientAlert("%s: changes made before a crash were not uploaded (%s) and stay in %s (%s)",
                    record.path.c_str(), why.c_str(), local.c_str(), strerror(errno));
        continue;  // the record stays, and so does the file it points at
      }
    }
    journal->Remove(record.id);
  }
}

void ListUnsavedFiles(const std::string& cache_dir) {
  namespace fs = std::filesystem;
  std::error_code error;
  for (fs::recursive_directory_iterator it(cache_dir + "/unsaved", error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file(error)) {
      ClientAlert("not uploaded, kept until you remove it: %s", it->path().c_str());
    }
  }
}
