#include "common/process.h"

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "common/clock.h"
#include "common/platform.h"

namespace {

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

// The executable's directory: the path cut at its last "/", the slash
// dropped. Empty when the path is unavailable or holds no "/".
std::string ExecutableDirectory() {
  std::string path;
  if (!ExecutablePath(&path)) return std::string();
  std::string::size_type slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return path.substr(0, slash);
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

Chrono::Chrono() : start_(SteadyNow()) {}

Chrono::~Chrono() = default;

long long Chrono::reset() {
  start_ = SteadyNow();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(start_.time_since_epoch()).count();
}

long long Chrono::elapsed() const {
  // Integer division truncates toward zero, so 1.9 ms reads as 1.
  return std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyNow() - start_).count() /
         1000000;
}

std::string NewUUID() { return RandomUUID(); }

std::string pexec(std::string command) {
  std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
  if (!pipe) throw std::runtime_error("popen() failed!");
  // fread rather than line reads: lines of any length, and bytes after a NUL,
  // come through whole. A read error ends the output like end of file does.
  std::string output;
  char buffer[4096];
  size_t count;
  while ((count = fread(buffer, 1, sizeof(buffer), pipe.get())) > 0) {
    output.append(buffer, count);
  }
  return output;
}

bool IsRunningPID(long long pid) {
  // A value that pid_t cannot hold would be truncated into some other,
  // possibly live, process id.
  if (static_cast<long long>(static_cast<pid_t>(pid)) != pid) return false;
  return kill(static_cast<pid_t>(pid), 0) == 0;
}

std::string GetCurrentPath() { return ExecutableDirectory(); }

int octalToDecimal(int n) {
  // Every partial sum is at most 9 * (8^10 - 1) / 7 in magnitude, so the
  // 64-bit accumulator never overflows and the final value fits an int; the
  // remainder keeps n's sign, which is what negates negative inputs.
  long long result = 0;
  long long weight = 1;
  while (n != 0) {
    result += static_cast<long long>(n % 10) * weight;
    weight *= 8;
    n /= 10;
  }
  return static_cast<int>(result);
}

std::string GetUserName() {
  UserAccount account;
  if (!CurrentUserAccount(&account)) return std::string();
  return account.name;
}

bool IsFinderSync() {
  std::string path;
  return ExecutablePath(&path) && EndsWith(path, "FinderSync");
}

std::string GetResourcePath() {
  std::string path;
  if (!ExecutablePath(&path)) return std::string();
  std::string::size_type slash = path.rfind('/');
  if (slash != std::string::npos) path.erase(slash);
  // The extension lives in Contents/PlugIns/<name>.appex/Contents/MacOS of
  // its host application, four levels below the host's Resources.
  path += IsFinderSync() ? "/../../../../Resources" : "/../Resources";
  if (char* resolved = realpath(path.c_str(), nullptr)) {
    path = resolved;
    free(resolved);
  }
  if (path.empty() || path.back() != '/') path += '/';
  return path;
}

std::string GetHomePath() {
  UserAccount account;
  if (CurrentUserAccount(&account) && !account.home.empty()) return account.home;
  const char* home = getenv("HOME");
  return home != nullptr ? std::string(home) : std::string();
}

std::string GetOSXMountPath(std::string name) { return "/Volumes/" + name + "_" + GetUserName(); }

std::string GetAppDataPath(std::string /*unused*/) {
  std::string home = GetHomePath();
  // The sandboxed extension's home is its container,
  // ~/Library/Containers/com.quorix...FinderSync/Data: four levels below the
  // real home.
  if (IsFinderSync() && home.find("com.quorix") != std::string::npos &&
      home.find("FinderSync") != std::string::npos) {
    home += "/../../../..";
  }
  return home + "/Library/Application Support";
}
