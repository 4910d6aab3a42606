// A logger that keeps every line it is given, formatted, for tests to inspect.
// Binds itself on construction and unbinds on destruction.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvcache.h"

class RecordingLog : public ILog {
 public:
  RecordingLog();
  ~RecordingLog() override;
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;

  void Write(LOGLEVEL level, const char* format, va_list args) override;

  std::vector<std::pair<LOGLEVEL, std::string>> Lines() const;
  // Lines whose text contains `needle`.
  int Count(const std::string& needle) const;

 private:
  mutable std::mutex lock_;
  std::vector<std::pair<LOGLEVEL, std::string>> lines_;  // guarded by lock_
};
