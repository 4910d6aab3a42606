// A client built against the installed header and shared library alone.
#include <korvcache.h>

#include <cstdio>

namespace {

class StderrLog : public ILog {
 public:
  void Write(LOGLEVEL level, const char* format, va_list args) override {
    std::fprintf(stderr, "[%d] ", static_cast<int>(level));
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
  }
};

class Work : public IAsyncObj {
 public:
  void Process(void* param) override { ran = param != nullptr; }
  void Canceled(void*) override {}
  bool ran = false;
};

}  // namespace

int main() {
  StderrLog log;
  if (!Cache_BindLogger(&log)) return 1;
  Work work;
  QueueAsync(&work, nullptr);
  Cache_UnbindLogger();
  if (!work.ran) return 2;
  std::puts("client ok");
  return 0;
}
