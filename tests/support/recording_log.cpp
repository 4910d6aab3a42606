#include "support/recording_log.h"

#include <algorithm>
#include <cstdio>

RecordingLog::RecordingLog() { Cache_BindLogger(this); }

RecordingLog::~RecordingLog() { Cache_UnbindLogger(); }

void RecordingLog::Write(LOGLEVEL level, const char* format, va_list args) {
  char line[4096];  // far longer than any line the library writes
  std::vsnprintf(line, sizeof(line), format, args);
  std::lock_guard<std::mutex> guard(lock_);
  lines_.emplace_back(level, line);
}

std::vector<std::pair<LOGLEVEL, std::string>> RecordingLog::Lines() const {
  std::lock_guard<std::mutex> guard(lock_);
  return lines_;
}

int RecordingLog::Count(const std::string& needle) const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int>(std::count_if(lines_.begin(), lines_.end(),
                                        [&](const auto& l) { return l.second.find(needle) != std::string::npos; }));
}
