// A logger that keeps every line it is given, formatted, for tests to inspect.
// Binds itself on construction and unbinds on destruction.
#pragma once

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvcache.h"

class RecordingLog : public ILog {
 public:
  RecordingLog() { Cache_BindLogger(this); }
  ~RecordingLog() override { Cache_UnbindLogger(); }
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;

  __attribute__((format(printf, 3, 0))) void Write(LOGLEVEL level, const char* format, va_list args) override {
    char line[4096];  // far longer than any line the library writes
    std::vsnprintf(line, sizeof(line), format, args);
    std::lock_guard<std::mutex> guard(lock_);
    lines_.emplace_back(level, line);
  }

  std::vector<std::pair<LOGLEVEL, std::string>> Lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }
  // Lines whose text contains `needle`.
  int Count(const std::string& needle) const {
    std::lock_guard<std::mutex> guard(lock_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(),
                                          [&](const auto& l) { return l.second.find(needle) != std::string::npos; }));
  }

 private:
  mutable std::mutex lock_;
  std::vector<std::pair<LOGLEVEL, std::string>> lines_;  // guarded by lock_
};
