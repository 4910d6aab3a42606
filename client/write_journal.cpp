#include "write_journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "common/platform.h"
#include "remote_file_io.h"
#include "stderr_log.h"

namespace {

const char kMagic[] = "korvmount journal 1";
const char kSuffix[] = ".rec";

// One field a line: backslashes and line ends escaped.
std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') out += "\\\\";
    else if (c == '\n') out += "\\n";
    else out += c;
  }
  return out;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) out += text[++i] == 'n' ? '\n' : text[i];
    else out += text[i];
  }
  return out;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool IsSectorCacheName(const std::string& name) {
  if (name.size() != 36 + 6 || !EndsWith(name, ".cache")) return false;
  for (size_t i = 0; i < 36; ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (name[i] == '-') || (!dash && !isxdigit(static_cast<unsigned char>(name[i])))) return false;
  }
  return true;
}

// Regular files directly in `dir`, apart from the library's sector cache files,
// which are named afresh for every object (a UUID and ".cache"). Called twice
// for every file made writable, with thousands of files waiting for their
// upload in the directory: the type comes from the listing where it can.
std::set<std::string> PlainFiles(const std::string& dir) {
  std::set<std::string> names;
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) return names;
  while (dirent* entry = readdir(listing)) {
    if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN) continue;
    const std::string name = entry->d_name;
    if (IsSectorCacheName(name)) continue;
    struct stat st;
    if (entry->d_type == DT_REG ||
        (fstatat(dirfd(listing), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))) {
      names.insert(name);
    }
  }
  closedir(listing);
  return names;
}

bool SyncPath(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = fsync(fd) == 0;
  return close(fd) == 0 && synced;
}

bool ParseRecord(const std::string& text, JournalRecord* record) {
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kMagic) return false;
  bool ended = false;
  while (!ended && std::getline(in, line)) {
    const std::string::size_type space = line.find(' ');
    const std::string key = line.substr(0, space);
    const std::string value = space == std::string::npos ? "" : Unescape(line.substr(space + 1));
    if (key == "path") record->path = value;
    else if (key == "new") record->is_new = value == "1";
    else if (key == "validator") record->validator = value;
    else if (key == "size") record->size = std::atoll(value.c_str());
    else if (key == "mtime") record->mtime = std::atoll(value.c_str());
    else if (key == "local") record->local_name = value;
    else if (key == "end") ended = true;
    else return false;
  }
  return ended && !record->path.empty() && record->path[0] == '/' && !record->local_name.empty() &&
         record->local_name.find('/') == std::string::npos;
}

}  // namespace

WriteJournal::WriteJournal(std::string cache_dir, Origin* origin)
    : cache_dir_(std::move(cache_dir)), dir_(cache_dir_ + "/journal/"), origin_(origin) {}

WriteJournal::~WriteJournal() {
  if (lock_fd_ >= 0) close(lock_fd_);
}

bool WriteJournal::Open(bool* owner, std::string* error) {
  if (mkdir(dir_.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = "cannot make " + dir_ + ": " + strerror(errno);
    return false;
  }
  lock_fd_ = open((dir_ + "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_fd_ < 0) {
    *error = "cannot open " + dir_ + "lock: " + strerror(errno);
    return false;
  }
  *owner = flock(lock_fd_, LOCK_EX | LOCK_NB) == 0;
  return true;
}

bool WriteJournal::Record(RemoteFile* file) {
  if (file->journal_id.empty()) file->journal_id = RandomUUID() + kSuffix;
  const OriginFileInfo seen = file->Seen();
  std::string text = std::string(kMagic) + "\npath " + Escape(file->Path()) + "\nnew " +
                     (file->on_origin ? "0" : "1") + "\nvalidator " + Escape(seen.validator) + "\nsize " + std::to_string(seen.size) +
                     "\nmtime " + std::to_string(seen.mtime) + "\nlocal " +
                     Escape(file->local_name) + "\nend\n";
  const std::string target = dir_ + file->journal_id;
  const std::string temporary = dir_ + ".tmp-" + file->journal_id;
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
  if (fd >= 0 && close(fd) != 0) ok = false;
  ok = ok && rename(temporary.c_str(), target.c_str()) == 0 && SyncPath(dir_, O_RDONLY | O_DIRECTORY);
  if (!ok) {
    ClientAlert("%s: the journal record %s cannot be written (%s): a crash now would lose its changes",
                file->Path().c_str(), target.c_str(), strerror(errno));
    unlink(temporary.c_str());
  }
  return ok;
}

void WriteJournal::Drop(RemoteFile* file) {
  if (file->journal_id.empty()) return;
  Remove(file->journal_id);
  file->journal_id.clear();
}

void WriteJournal::Remove(const std::string& id) {
  if (unlink((dir_ + id).c_str()) != 0 && errno != ENOENT) {
    ClientLog(LOGLEVEL_WARNING, "cannot remove the journal record %s%s: %s", dir_.c_str(), id.c_str(), strerror(errno));
  }
}

std::vector<JournalRecord> WriteJournal::Leftovers() {
  std::vector<JournalRecord> records;
  for (const std::string& name : PlainFiles(dir_)) {
    if (name.compare(0, 5, ".tmp-") == 0) {
      unlink((dir_ + name).c_str());  // never renamed into place: its record was never written
      continue;
    }
    if (!EndsWith(name, kSuffix)) continue;
    std::ifstream in(dir_ + name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    JournalRecord record;
    record.id = name;
    if (in && ParseRecord(text.str(), &record)) {
      records.push_back(record);
      continue;
    }
    const std::string aside = dir_ + name.substr(0, name.size() - strlen(kSuffix)) + ".unreadable";
    ClientAlert("the journal record %s%s cannot be read: skipped, kept as %s", dir_.c_str(), name.c_str(),
                aside.c_str());
    rename((dir_ + name).c_str(), aside.c_str());
  }
  return records;
}

int WriteJournal::MakeWritable(RemoteFile* file) {
  std::lock_guard<std::mutex> guard(writable_lock_);
  if (file->writable) return 0;
  const std::set<std::string> before = PlainFiles(cache_dir_);
  const int result = MakeRemoteFileWritable(file);
  if (result != 0) return result;
  std::string made;
  int count = 0;
  for (const std::string& name : PlainFiles(cache_dir_)) {
    if (before.count(name) == 0) made = name, ++count;
  }
  std::lock_guard<std::mutex> io(file->io_lock);
  file->journal = this;
  if (count == 1) file->local_name = made;
  else ClientLog(LOGLEVEL_ERROR, "%s: the cache file of its writable copy was not found", file->Path().c_str());
  // A file created here is a change before its first write.
  return file->dirty ? PrepareFirstChange(file, false) : 0;
}

bool WriteJournal::SyncLocalBytes(RemoteFile* file) {
  std::string name;
  {
    std::lock_guard<std::mutex> io(file->io_lock);
    name = file->local_name;
  }
  return !name.empty() && SyncPath(cache_dir_ + "/" + name, O_RDONLY);
}

void WriteJournal::LearnVersion(RemoteFile* file) {
  OriginFileInfo info;
  std::string error;
  if (origin_ == nullptr || origin_->Stat(file->Path(), &info, &error) != OriginStatus::kOk || info.is_directory) {
    return;  // the record names the version as the drive knows it: recovery keeps the bytes aside
  }
  DriveTime confirmed;
  file->Seen(&confirmed);
  file->SetSeen(info, confirmed);
}

int PrepareFirstChange(RemoteFile* file, bool replaces_all) {
  if (file->journal == nullptr || !file->journal_id.empty() || file->removed) return 0;
  if (file->on_origin && !replaces_all && file->object->FillEmptySectors(file->fetch.get()) != kOk) {
    ClientLog(LOGLEVEL_ERROR, "%s: the parts not cached yet could not be fetched before its first change",
              file->Path().c_str());
    return -EIO;
  }
  // Not found when it became writable (and said so then): changed unjournaled.
  if (file->local_name.empty()) return 0;
  if (file->on_origin && file->Seen().validator.empty()) file->journal->LearnVersion(file);
  return file->journal->Record(file) ? 0 : -EIO;
}
