#include "command_line.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

const char kCommonOptionsHelp[] =
    "  --cache-dir DIR     cache directory (default: $XDG_CACHE_HOME/korvcache or ~/.cache/korvcache)\n"
    "  --limit SIZE        storage limit of the cache directory, e.g. 4G (default 4G, at least 64M)\n"
"  --attr-timeout MS   how long a file's size and version, as listed or last asked, are\n"
    "                      trusted: an open within it asks the origin nothing (default 1000, 0: every open asks)\n"
    "  --threads N         worker threads fetching from the origin (default 4)\n"
    "  --files-ahead N     once files of a directory are opened one after the other, the\n"
    "                      first MiB of the next N is fetched ahead (default 8, 0: none)\n"
    "  --log-level LEVEL   debug, info, warning, error or none (default warning)\n"
    "  --settings JSON     cache settings document, or @FILE to read it from a file\n"
    "  --timeout-ms MS     an origin request that stalls this long fails (default 15000)\n"
    "  --latency-ms MS     directory origin: delay added to every request\n"
    "  --bandwidth RATE    directory origin: bytes per second, e.g. 100M\n"
    "  --no-keep-cache     start with an empty cache and keep nothing at the end (by default\n"
    "                      what was read stays for the next run, served while the origin's\n"
    "                      version is unchanged; korvcat keeps too, for the next korvcat)\n"
    "  --write-back SECONDS  a close returns once the data is on local disk; the upload\n"
    "                      follows after SECONDS without a close (default: the close uploads)\n";

bool ParseSize(const std::string& text, unsigned long long* bytes) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = strtoull(text.c_str(), &end, 10);
  if (errno != 0) return false;
  std::string suffix(end);
  if (!suffix.empty() && (suffix.back() == 'B' || suffix.back() == 'b')) suffix.pop_back();
  if (suffix.size() == 2 && (suffix[1] == 'i' || suffix[1] == 'I')) suffix.pop_back();
  int shift = 0;
  if (suffix.empty()) shift = 0;
  else if (suffix == "k" || suffix == "K") shift = 10;
  else if (suffix == "m" || suffix == "M") shift = 20;
  else if (suffix == "g" || suffix == "G") shift = 30;
  else if (suffix == "t" || suffix == "T") shift = 40;
  else return false;
  if (shift > 0 && number > (~0ULL >> shift)) return false;
  *bytes = number << shift;
  return true;
}

bool ParseCount(const std::string& text, long long* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long long number = strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || number < 0) return false;
  *value = number;
  return true;
}

std::string DefaultCacheDirectory() {
  if (const char* xdg = getenv("XDG_CACHE_HOME"); xdg != nullptr && xdg[0] == '/') return std::string(xdg) + "/korvcache";
  if (const char* home = getenv("HOME"); home != nullptr && home[0] == '/') return std::string(home) + "/.cache/korvcache";
  return "/tmp/korvcache-" + std::to_string(getuid());
}

bool ParseClientOptions(int argc, char** argv, ClientOptions* options, std::string* error) {
  options->drive.cache_dir = DefaultCacheDirectory();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) {
        *error = arg + " needs a value";
        return false;
      }
      *out = argv[++i];
      return true;
    };
    std::string text;
    long long number = 0;
    unsigned long long bytes = 0;
    if (arg == "-h" || arg == "--help") {
      options->help = true;
    } else if (arg == "-f" || arg == "--foreground") {
      options->foreground = true;
    } else if (arg == "-o") {
      if (!value(&text)) return false;
      options->fuse_options.push_back(text);
      // Other users may use the volume only under the permission checks of
      // the kernel: without them every local user could write to the origin.
      std::istringstream list(text);
      for (std::string option; std::getline(list, option, ',');) {
        if (option == "allow_other" || option == "allow_root") options->fuse_options.push_back("default_permissions");
      }
    } else if (arg == "--cache-dir") {
      if (!value(&options->drive.cache_dir)) return false;
    } else if (arg == "--limit") {
      if (!value(&text)) return false;
      if (!ParseSize(text, &bytes)) return *error = "bad --limit " + text, false;
      if (bytes < kSmallestLimit) return *error = "--limit " + text + " is below the cache's floor of 64M", false;
      options->drive.limit = bytes;
    } else if (arg == "--attr-timeout") {
      if (!value(&text)) return false;
      if (!ParseCount(text, &number)) return *error = "bad --attr-timeout " + text, false;
      options->drive.listing_ttl_ms = number;
    } else if (arg == "--threads") {
      if (!value(&text)) return false;
      if (!ParseCount(text, &number) || number < 1 || number > 256) return *error = "bad --threads " + text, false;
      options->drive.threads = static_cast<int>(number);
    } else if (arg == "--files-ahead") {
      if (!value(&text)) return false;
      if (!ParseCount(text, &number) || number > 256) return *error = "bad --files-ahead " + text, false;
      options->drive.files_ahead = static_cast<int>(number);
    } else if (arg == "--log-level") {
      if (!value(&text)) return false;
      if (!StderrLog::MaskFromName(text, &options->drive.log_mask)) return *error = "bad --log-level " + text, false;
    } else if (arg == "--settings") {
      if (!value(&text)) return false;
      if (!text.empty() && text[0] == '@') {
        std::ifstream in(text.substr(1));
        if (!in) return *error = "cannot read settings file " + text.substr(1), false;
        std::stringstream all;
        all << in.rdbuf();
        text = all.str();
      }
      options->drive.settings_json = text;
    } else if (arg == "--timeout-ms") {
      if (!value(&text)) return false;
      if (!ParseCount(text, &number) || number < 1) return *error = "bad --timeout-ms " + text, false;
      options->origin.timeout_ms = number;
    } else if (arg == "--latency-ms") {
      if (!value(&text)) return false;
      if (!ParseCount(text, &number)) return *error = "bad --latency-ms " + text, false;
      options->origin.latency_ms = number;
    } else if (arg == "--bandwidth") {
      if (!value(&text)) return false;
      if (!ParseSize(text, &bytes)) return *error = "bad --bandwidth " + text, false;
      options->origin.bandwidth = static_cast<long long>(bytes);
    } else if (arg == "--write-back") {
      if (!value(&text)) return false;
      if (!ParseCount(text, &number) || number > 1000000) return *error = "bad --write-back " + text, false;
      options->drive.write_back_seconds = number;
    } else if (arg == "--no-keep-cache") {
      options->drive.keep_cache = false;
    } else if (arg == "--progress") {
      options->progress = true;
    } else if (arg == "--verify") {
      if (!value(&options->verify_sha256)) return false;
    } else if (arg.size() > 1 && arg[0] == '-') {
      *error = "unknown option " + arg;
      return false;
    } else {
      options->positional.push_back(arg);
    }
  }
  return true;
}

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string PercentDecode(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 && HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

bool SplitOriginFile(const std::string& target, std::string* origin, std::string* path) {
  if (IsHttpUrl(target)) {
    const std::string::size_type slash = target.find('/', target.find("://") + 3);
    if (slash == std::string::npos || slash + 1 >= target.size() || target.back() == '/') return false;
    *origin = target.substr(0, slash);
    std::string rest = target.substr(slash);
    const std::string::size_type query = rest.find_first_of("?#");
    if (query != std::string::npos) rest.erase(query);
    *path = PercentDecode(rest);
    return true;
  }
  std::string file = target;
  if (file.empty() || file.back() == '/') return false;
  if (file[0] != '/') {
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) return false;
    file = std::string(cwd) + "/" + file;
  }
  const std::string::size_type slash = file.rfind('/');
  *origin = slash == 0 ? "/" : file.substr(0, slash);
  *path = file.substr(slash);
  return true;
}
