#include "stderr_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>

namespace {

std::atomic<StderrLog*> g_client_log{nullptr};

const char* LevelName(LOGLEVEL level) {
  switch (level) {
    case LOGLEVEL_DEBUG: return "DEBUG";
    case LOGLEVEL_INFO: return "INFO ";
    case LOGLEVEL_WARNING: return "WARN ";
    case LOGLEVEL_ERROR: return "ERROR";
  }
  return "?    ";
}

// Formats the whole line first and writes it with one call, so lines from
// different threads never interleave.
void WriteLine(LOGLEVEL level, const char* format, va_list args) {
  char line[4096];
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  int used = static_cast<int>(strftime(line, sizeof(line), "%Y-%m-%d %H:%M:%S", &local));
  used += snprintf(line + used, sizeof(line) - static_cast<size_t>(used), ".%03d %s ",
                   static_cast<int>(now.tv_usec / 1000), LevelName(level));
  int body = vsnprintf(line + used, sizeof(line) - static_cast<size_t>(used) - 1, format, args);
  if (body < 0) body = 0;
  used += body;
  if (used > static_cast<int>(sizeof(line)) - 2) used = static_cast<int>(sizeof(line)) - 2;
  line[used++] = '\n';
  ssize_t ignored = write(STDERR_FILENO, line, static_cast<size_t>(used));
  (void)ignored;
}

}  // namespace

void StderrLog::Write(LOGLEVEL level, const char* format, va_list args) {
  if ((mask_.load(std::memory_order_relaxed) & static_cast<unsigned>(level)) == 0) return;
  WriteLine(level, format, args);
}

bool StderrLog::MaskFromName(const std::string& name, unsigned* mask) {
  const unsigned all = LOGLEVEL_DEBUG | LOGLEVEL_INFO | LOGLEVEL_WARNING | LOGLEVEL_ERROR;
  if (name == "debug") *mask = all;
  else if (name == "info") *mask = all & ~LOGLEVEL_DEBUG;
  else if (name == "warning") *mask = LOGLEVEL_WARNING | LOGLEVEL_ERROR;
  else if (name == "error") *mask = LOGLEVEL_ERROR;
  else if (name == "none") *mask = 0;
  else return false;
  return true;
}

void SetClientLog(StderrLog* log) { g_client_log.store(log, std::memory_order_release); }

void ClientLog(LOGLEVEL level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (StderrLog* log = g_client_log.load(std::memory_order_acquire)) {
    log->Write(level, format, args);
  } else if (level >= LOGLEVEL_WARNING) {
    WriteLine(level, format, args);
  }
  va_end(args);
}

void ClientAlert(const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteLine(LOGLEVEL_ERROR, format, args);
  va_end(args);
}
