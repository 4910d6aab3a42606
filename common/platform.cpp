#include "common/platform.h"

#include <pwd.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <climits>
#include <vector>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#include <sys/param.h>
#include <sys/mount.h>
#else
#include <sys/vfs.h>
#endif

bool ExecutablePath(std::string* out) {
  char buffer[kMaxExecutablePath];
#ifdef __APPLE__
  uint32_t size = sizeof(buffer);
  // Fails (returns -1) rather than truncating when the buffer is too small.
  if (_NSGetExecutablePath(buffer, &size) != 0) return false;
  *out = buffer;
#else
  // readlink neither terminates nor reports truncation: a result that fills
  // the buffer may have been cut short.
  ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer));
  if (length <= 0 || static_cast<size_t>(length) >= sizeof(buffer)) return false;
  out->assign(buffer, static_cast<size_t>(length));
#endif
  return true;
}

std::string RandomUUID() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];  // 36 characters and the NUL uuid_unparse writes
  uuid_unparse(uuid, text);
  return std::string(text);
}

bool CurrentUserAccount(UserAccount* out) {
  // getpwuid_r rather than getpwuid: the latter's static record would race
  // with any other thread of the client's process looking up users.
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 16384);
  struct passwd entry;
  struct passwd* found = nullptr;
  for (;;) {
    int error = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr) return false;
    break;
  }
  out->name = found->pw_name != nullptr ? found->pw_name : "";
  out->home = found->pw_dir != nullptr ? found->pw_dir : "";
  return true;
}

bool VolumeFreeBytes(const std::string& path, long long* out) {
  struct statfs info;
  if (statfs(path.c_str(), &info) != 0) return false;
  // f_bfree, not f_bavail: the cache may count on the superuser's reserve
  // too. Field widths differ between the systems, so multiply unsigned.
  unsigned long long bytes = static_cast<unsigned long long>(info.f_bsize) *
                             static_cast<unsigned long long>(info.f_bfree);
  *out = bytes > static_cast<unsigned long long>(LLONG_MAX) ? LLONG_MAX
                                                             : static_cast<long long>(bytes);
  return true;
}
