#include "support/recording_log.h"

#include <cstdio>

RecordingLog::RecordingLog() { Cache_BindLogger(this); }

RecordingLog::~RecordingLog() { Cache_UnbindLogger(); }

void RecordingLog::Write(LOGLEVEL level, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int needed = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string line(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
  if (needed > 0) std::vsnprintf(&line[0], line.size() + 1, format, args);
  std::lock_guard<std::mutex> guard(lock_);
  lines_.emplace_back(level, std::move(line));
}

std::vector<std::pair<LOGLEVEL, std::string>> RecordingLog::Lines() const {
  std::lock_guard<std::mutex> guard(lock_);
  return lines_;
}

int RecordingLog::Count(const std::string& needle) const {
  std::lock_guard<std::mutex> guard(lock_);
  int n = 0;
  for (const auto& l : lines_) n += l.second.find(needle) != std::string::npos;
  return n;
}

int RecordingLog::LevelOf(const std::string& needle) const {
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto& l : lines_)
    if (l.second.find(needle) != std::string::npos) return l.first;
  return 0;
}

int RecordingLog::IndexOf(const std::string& needle) const {
  std::lock_guard<std::mutex> guard(lock_);
  for (size_t i = 0; i < lines_.size(); ++i)
    if (lines_[i].second.find(needle) != std::string::npos) return static_cast<int>(i);
  return -1;
}

void RecordingLog::Clear() {
  std::lock_guard<std::mutex> guard(lock_);
  lines_.clear();
}
