// Cache-file calls failing one kind at a time, through the file seam: a full
// disk, I/O errors, short writes, a file that cannot be opened. Each failure
// gives its status code and never a byte that is not the origin's (or the
// client's own); once the calls work again the same file serves exact bytes
// and no half-written slot is left in a sector cache file.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "cache/sector.h"
#include "support/fake_origin.h"
#include "support/faulty_file_io.h"
#include "support/requests.h"
#include "support/temp_dir.h"

namespace {

constexpr long long S = kSectorSize;
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
    std::shared_ptr<ICacheObj> file;
    auto open = [&] { file = cache->Open("faults/file.bin", writable ? 'w' : 'r', origin.size(), &origin); };
    const std::vector<char> mine = Pattern(256 * 1024, 'A');
    auto write = [&] {
      _WRITEDATA wd = WriteRequest(mine, 1000, origin.size(), &origin);
      return file->Write(&wd);
    };
    {
      FaultyFileIo io;
      if (c.action != Action::kCreate) open();
      if (c.action == Action::kCachedRead || c.action == Action::kLocalRead) {
        ASSERT_TRUE(Served(*file, origin, 0, 2 * S, 5000));
      }
      io.Break(c.call, c.error, c.stored);
      if (c.action == Action::kCreate) {
        EXPECT_EQ(ErrorThrownBy(open), c.status);
      } else if (c.action == Action::kWrite) {
        EXPECT_EQ(write(), c.status);
      } else if (c.action == Action::kTruncate) {
        EXPECT_EQ(file->Truncate(1000), c.status);
      } else {  // a read; the whole-file one where nothing is cached yet
        const bool whole = c.action == Action::kWholeRead;
        EXPECT_EQ(ReadAndCheck(*file, origin, whole ? 2 * S : 0, 2 * S, 5000, nullptr, whole).status, c.status);
      }
      EXPECT_GT(io.failures(), 0) << "the fault was never reached";
      io.Heal();
      if (c.action == Action::kCreate) open();
      std::vector<char> expected = OriginBytes(0, origin.size());
      if (c.action == Action::kWrite) {
        ASSERT_EQ(write(), kOk);
        std::copy(mine.begin(), mine.end(), expected.begin() + 1000);
      }
      EXPECT_TRUE(Served(*file, origin, 0, expected.size(), 5000, &expected));
      if (!writable) {
        for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
          EXPECT_EQ(std::filesystem::file_size(entry.path()) % static_cast<uintmax_t>(S), 0u) << "a half slot";
      }
      file.reset();
      cache->Close("faults/file.bin");
    }
    ReleaseCache(dir.path().c_str());
  }
}

}  // namespace
