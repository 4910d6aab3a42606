// A client built against the installed header and shared library alone: the
// whole flow of binding a logger, opening a cache directory, reading a file
// through it and releasing everything.
#include <korvcache.h>
#include <korvcache/common/wildcard.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

class CountingLog : public ILog {
 public:
  void Write(LOGLEVEL, const char*, va_list) override { ++lines; }
  int lines = 0;
};

// An origin of `size` bytes where byte x is x % 251.
class CountingOrigin : public IFetch {
 public:
  explicit CountingOrigin(long long size) : size_(size) {}
  long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback* callback) override {
    long long end = offset + length < size_ ? offset + length : size_;
    std::vector<char> bytes(static_cast<size_t>(end - offset));
    for (long long i = offset; i < end; ++i) bytes[static_cast<size_t>(i - offset)] = static_cast<char>(i % 251);
    long written = 0;
    return callback->FetchWrite(offset, bytes.data(), static_cast<long>(bytes.size()), &written);
  }
  std::string HandleInfo(_FS_HANDLE*) override { return ""; }

 private:
  long long size_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 64;
  const std::string dir = argv[1];
  CountingLog log;
  if (!Cache_BindLogger(&log)) return 1;

  // An exported utility, through its installed header.
  if (!IsNameInExpressionA("*.BIN", "file.bin", true)) return 5;

  ICache_V2* cache = nullptr;
  if (InitCache(dir.c_str(), 1ull << 30, &cache) != kOk || cache == nullptr) return 2;
  CountingOrigin origin(3 << 20);
  std::shared_ptr<ICacheObj> file = cache->Open("remote/file.bin", 'r', 3 << 20, &origin);

  std::vector<char> buffer(100000);
  _READDATA rd{buffer.data(), 1000000, buffer.size(), 0, std::make_shared<_FS_HANDLE>(), 3 << 20, &origin, 0,
               false};
  if (file->Read(&rd) != kOk || rd.transferred != buffer.size()) return 3;
  for (size_t i = 0; i < buffer.size(); ++i)
    if (buffer[i] != static_cast<char>((1000000 + i) % 251)) return 4;

  file.reset();
  cache->Close("remote/file.bin");
  ReleaseCache(dir.c_str());
  Cache_UnbindLogger();
  if (log.lines == 0) return 6;
  std::puts("client ok");
  return 0;
}
