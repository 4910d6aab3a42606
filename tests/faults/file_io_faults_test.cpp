// Cache-file calls failing one kind at a time, through the file seam: a full
// disk, I/O errors, short writes, a file that cannot be opened. Each failure
// gives its status code and never a byte that is not the origin's (or the
// client's own); once the calls work again the same file serves exact bytes
// and no half-written slot is left in a sector cache file.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cache/sector.h"
#include "support/fake_origin.h"
#include "support/faulty_file_io.h"
#include "support/temp_dir.h"

namespace {

constexpr long long S = kSectorSize;
constexpr long long kMiB = 1 << 20;
using Call = FaultyFileIo::Call;

enum class Action {
  kFetchRead,   // read-only file: a cold read that fetches
  kWholeRead,   // read-only file: a whole-file read (no time-out)
  kCachedRead,  // read-only file: a read of sectors already cached
  kCreate,      // writable file: creating its local copy
  kWrite,       // writable file: a client write inside a hole
  kLocalRead,   // writable file: a read of the local copy
  kTruncate,    // writable file: a cut
  kHoleRead,    // writable file: a read whose hole is fetched
};

struct Case {
  const char* what;
  Call call;
  int error;
  size_t stored;  // bytes a failing write stores first
  Action action;
  unsigned int status;  // of the failing call
};

std::shared_ptr<_FS_HANDLE> Handle() {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state = 1;
  return handle;
}

unsigned int Read(ICacheObj& file, FakeOrigin& origin, long long offset, std::vector<char>* out,
                  bool whole_file = false) {
  _READDATA rd{out->data(), offset, out->size(), 0, Handle(), origin.size(), &origin, 5000, whole_file};
  const unsigned int status = file.Read(&rd);
  out->resize(status == kOk ? rd.transferred : 0);
  return status;
}

unsigned int Write(ICacheObj& file, FakeOrigin& origin, long long offset, const std::vector<char>& data) {
  _WRITEDATA wd{const_cast<char*>(data.data()), offset, data.size(), 0, Handle(), origin.size(), &origin};
  return file.Write(&wd);
}

// Every byte of [offset, offset + size) is the origin's except the client's
// `mine`, written at `mine_at`.
void ExpectExact(ICacheObj& file, FakeOrigin& origin, long long offset, size_t size,
                 const std::vector<char>& mine = {}, long long mine_at = 0) {
  std::vector<char> got(size);
  ASSERT_EQ(Read(file, origin, offset, &got), kOk);
  ASSERT_EQ(got.size(), size);
  for (size_t i = 0; i < size; ++i) {
    const long long at = offset + static_cast<long long>(i);
    const bool is_mine = at >= mine_at && at < mine_at + static_cast<long long>(mine.size());
    const char want = is_mine ? mine[static_cast<size_t>(at - mine_at)] : FakeOrigin::ByteAt(at);
    ASSERT_EQ(got[i], want) << "byte " << at;
  }
}

TEST(FileIoFaults, EachFailureGivesItsStatusAndTheSameFileRecovers) {
  const Case cases[] = {
      {"fetched sector cannot be stored: disk full", Call::kWrite, ENOSPC, S / 2, Action::kFetchRead, kErrRead},
      {"fetched sector cannot be flushed", Call::kFlush, ENOSPC, 0, Action::kFetchRead, kErrRead},
      {"whole-file read on a full disk fails instead of waiting", Call::kWrite, ENOSPC, S / 2, Action::kWholeRead,
       kErrRead},
      {"sector cache file cannot be opened", Call::kOpen, EACCES, 0, Action::kFetchRead, kErrRead},
      {"cached sector cannot be read back", Call::kReadAt, EIO, 0, Action::kCachedRead, kErrFileRead},
      {"local copy cannot be created", Call::kOpen, EACCES, 0, Action::kCreate, kErrCreateFile},
      {"client write on a full disk", Call::kWrite, ENOSPC, 1000, Action::kWrite, kErrFileWrite},
      {"client write that stdio only buffered", Call::kFlush, ENOSPC, 0, Action::kWrite, kErrFileWrite},
      {"local copy cannot be read", Call::kRead, EIO, 0, Action::kLocalRead, kErrRead},
      {"local copy cannot be cut", Call::kTruncate, EIO, 0, Action::kTruncate, kErrFileWrite},
      {"fetched hole cannot be stored", Call::kWrite, ENOSPC, S / 2, Action::kHoleRead, kOk},
  };
  Cache_UnbindAsyncQ();  // fetches run on the reading thread
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    ICache_V2* cache = nullptr;
    ASSERT_EQ(InitCache(dir.path().c_str(), 64 * kMiB, &cache), kOk);
    FakeOrigin origin(3 * S + 1000);
    const bool writable = c.action >= Action::kCreate;
    const std::string name = "faults/file.bin";
    std::vector<char> mine(256 * 1024);
    for (size_t i = 0; i < mine.size(); ++i) mine[i] = static_cast<char>('A' + i % 26);
    {
      FaultyFileIo io;
      std::shared_ptr<ICacheObj> file;
      if (c.action != Action::kCreate) file = cache->Open(name.c_str(), writable ? 'w' : 'r', origin.size(), &origin);
      std::vector<char> buffer(static_cast<size_t>(2 * S));
      if (c.action == Action::kCachedRead || c.action == Action::kLocalRead) {
        ASSERT_EQ(Read(*file, origin, 0, &buffer), kOk);
        buffer.resize(static_cast<size_t>(2 * S));
      }
      io.Break(c.call, c.error, c.stored);
      switch (c.action) {
        case Action::kWholeRead:
          EXPECT_EQ(Read(*file, origin, 2 * S, &buffer, true), c.status);
          break;
        case Action::kFetchRead:
        case Action::kCachedRead:
        case Action::kLocalRead:
        case Action::kHoleRead:
          EXPECT_EQ(Read(*file, origin, 0, &buffer), c.status);
          break;
        case Action::kCreate:
          try {
            file = cache->Open(name.c_str(), 'w', origin.size(), &origin);
            ADD_FAILURE() << "opened without a local copy";
          } catch (AERROR code) {
            EXPECT_EQ(code, c.status);
          }
          break;
        case Action::kWrite:
          EXPECT_EQ(Write(*file, origin, 1000, mine), c.status);
          break;
        case Action::kTruncate:
          EXPECT_EQ(file->Truncate(1000), c.status);
          break;
      }
      EXPECT_GT(io.failures(), 0) << "the fault was never reached";
      io.Heal();
      if (c.action == Action::kCreate) file = cache->Open(name.c_str(), 'w', origin.size(), &origin);
      if (c.action == Action::kWrite) {
        ASSERT_EQ(Write(*file, origin, 1000, mine), kOk);
        ExpectExact(*file, origin, 0, static_cast<size_t>(origin.size()), mine, 1000);
      } else {
        ExpectExact(*file, origin, 0, static_cast<size_t>(origin.size()));
      }
      if (!writable) {
        for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
          EXPECT_EQ(std::filesystem::file_size(entry.path()) % static_cast<uintmax_t>(S), 0u) << "a half slot";
      }
      file.reset();
      cache->Close(name.c_str());
    }
    ReleaseCache(dir.path().c_str());
  }
}

}  // namespace
