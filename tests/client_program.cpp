// A client built against the installed headers and shared library alone: it
// binds a logger, opens a cache directory, reads a file through it and
// releases everything.
#include <korvcache.h>
#include <korvcache/common/wildcard.h>

#include <memory>
#include <vector>

namespace {

struct CountingLog : ILog {
  void Write(LOGLEVEL, const char*, va_list) override { ++lines; }
  int lines = 0;
};

// An origin whose byte x is x % 251.
struct PatternOrigin : IFetch {
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback* callback) override {
    std::vector<char> bytes(static_cast<size_t>(length));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((offset + static_cast<long long>(i)) % 251);
    long written = 0;
    return callback->FetchWrite(offset, bytes.data(), length, &written);
  }
  std::string HandleInfo(_FS_HANDLE*) override { return ""; }
};

}  // namespace

int main(int argc, char** argv) {
  CountingLog log;
  PatternOrigin origin;
  ICache_V2* cache = nullptr;
  if (argc < 2 || !Cache_BindLogger(&log) || !IsNameInExpressionA("*.BIN", "file.bin", true)) return 1;
  if (InitCache(argv[1], 1ull << 30, &cache) != kOk || cache == nullptr) return 2;
  std::shared_ptr<ICacheObj> file = cache->Open("remote/file.bin", 'r', 3 << 20, &origin);
  std::vector<char> buffer(100000);
  _READDATA rd{buffer.data(), 1000000, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), 3 << 20, &origin, 0, false};
  if (file->Read(&rd) != kOk || rd.transferred != buffer.size()) return 3;
  for (size_t i = 0; i < buffer.size(); ++i) {
    if (buffer[i] != static_cast<char>((1000000 + i) % 251)) return 4;
  }
  file.reset();
  cache->Close("remote/file.bin");
  ReleaseCache(argv[1]);
  Cache_UnbindLogger();
  return log.lines == 0 ? 5 : 0;
}
