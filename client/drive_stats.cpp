#include "drive_stats.h"

#include <dirent.h>
#include <sys/stat.h>

#include <json/json.h>

namespace {

Json::Value Count(const std::atomic<long long>& counter) {
  return Json::Value(static_cast<Json::Int64>(TransferCounters::Get(counter)));
}

}  // namespace

std::string RenderDriveStats(const DriveStatsInput& input) {
  Json::Value root(Json::objectValue);
  root["origin"] = input.origin;
  root["origin_requests"] = Count(input.counters->origin_requests);
  root["bytes_fetched"] = Count(input.counters->bytes_fetched);
  root["bytes_served"] = Count(input.counters->bytes_served);
  root["bytes_served_from_cache"] = Count(input.counters->bytes_served_from_cache);
  root["kept_bytes_found_at_start"] = static_cast<Json::UInt64>(input.kept_bytes_at_start);
  root["bytes_served_from_kept_cache"] = Count(input.counters->bytes_served_from_kept_cache);
  root["cache_directory"] = input.cache_dir;
  root["cache_directory_bytes"] = static_cast<Json::UInt64>(input.cache_bytes);
  root["limit_bytes"] = static_cast<Json::UInt64>(input.limit);
  Json::Value files(Json::arrayValue);
  for (const DriveStatsInput::File& file : input.files) {
    Json::Value item(Json::objectValue);
    item["path"] = file.path;
    item["size"] = static_cast<Json::Int64>(file.size);
    item["bytes_served"] = Count(file.counters->bytes_served);
    item["bytes_fetched"] = Count(file.counters->bytes_fetched);
    files.append(item);
  }
  root["open_files"] = files;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  return Json::writeString(writer, root) + "\n";
}

unsigned long long DirectoryBytes(const std::string& dir) {
  unsigned long long total = 0;
  std::vector<std::string> pending = {dir};
  while (!pending.empty()) {
    const std::string current = pending.back();
    pending.pop_back();
    DIR* handle = opendir(current.c_str());
    if (handle == nullptr) continue;
    while (struct dirent* entry = readdir(handle)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      struct stat st;
      if (lstat((current + "/" + name).c_str(), &st) != 0) continue;
      if (S_ISDIR(st.st_mode)) pending.push_back(current + "/" + name);
      if (S_ISREG(st.st_mode)) total += static_cast<unsigned long long>(st.st_blocks) * 512;
    }
    closedir(handle);
  }
  return total;
}
