// A client built against the installed headers and shared library alone: it
// binds a logger, opens a cache directory, reads a file through it and
// releases everything.
#include <korvcache.h>
#include <korvcache/common/wildcard.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

class CountingLog : public ILog {
 public:
  void Write(LOGLEVEL, const char*, va_list) override { ++lines; }
  int lines = 0;
};

// An origin of 3 MiB where byte x is x % 251.
class PatternOrigin : public IFetch {
 public:
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback* callback) override {
    std::vector<char> bytes(static_cast<size_t>(std::min(offset + length, kSize) - offset));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((offset + static_cast<long long>(i)) % 251);
    long written = 0;
    return callback->FetchWrite(offset, bytes.data(), static_cast<long>(bytes.size()), &written);
  }
  std::string HandleInfo(_FS_HANDLE*) override { return ""; }
  static constexpr long long kSize = 3 << 20;
};

}  // namespace

int main(int argc, char** argv) {
  CountingLog log;
  ICache_V2* cache = nullptr;
  if (argc < 2 || !Cache_BindLogger(&log)) return 1;
  if (!IsNameInExpressionA("*.BIN", "file.bin", true)) return 5;
  if (InitCache(argv[1], 1ull << 30, &cache) != kOk || cache == nullptr) return 2;
  PatternOrigin origin;
  std::shared_ptr<ICacheObj> file = cache->Open("remote/file.bin", 'r', PatternOrigin::kSize, &origin);
  std::vector<char> buffer(100000);
  _READDATA rd{buffer.data(), 1000000, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), PatternOrigin::kSize,
               &origin, 0, false};
  if (file->Read(&rd) != kOk || rd.transferred != buffer.size()) return 3;
  for (size_t i = 0; i < buffer.size(); ++i) {
    if (buffer[i] != static_cast<char>((1000000 + i) % 251)) return 4;
  }
  file.reset();
  cache->Close("remote/file.bin");
  ReleaseCache(argv[1]);
  Cache_UnbindLogger();
  if (log.lines == 0) return 6;
  std::puts("client ok");
  return 0;
}
