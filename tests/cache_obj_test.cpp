// The cache object: creation by mode, mode switches and forwarding.
#include "cache/cache_obj.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "cache/sector.h"
#include "support/fake_config.h"
#include "support/fake_origin.h"
#include "support/temp_dir.h"
#include "support/test_queue.h"

namespace {

constexpr long long kMiB = 1048576;

class CacheObjTest : public ::testing::Test {
 protected:
  void SetUp() override { Cache_UnbindAsyncQ(); }
  std::string Dir() const { return dir_.path() + "/"; }
  TempDir dir_;
  FakeConfig config_;
};

_READDATA ReadOf(std::vector<char>& buffer, long long offset, FakeOrigin* origin) {
  return _READDATA{buffer.data(), offset, buffer.size(), 0, std::make_shared<_FS_HANDLE>(),
                   origin->size(), origin, -1, false};
}

TEST_F(CacheObjTest, ModesAreCheckedAtCreationAndOnSwitch) {
  FakeOrigin origin(4 * kMiB);
  try {
    CacheObj bad(Dir(), "bad.bin", 'x', origin.size(), &origin, &config_, "dir/bad.bin");
    FAIL() << "mode x was accepted";
  } catch (AERROR error) {
    EXPECT_EQ(error, kErrInvalidMode);
  }
  CacheObj obj(Dir(), "a.bin", 'r', origin.size(), &origin, &config_, "dir/a.bin");
  EXPECT_TRUE(obj.IsReadOnly());
  EXPECT_EQ(obj.SetMode('x', origin.size(), &origin), kErrInvalidMode);
  EXPECT_TRUE(obj.IsReadOnly());
  EXPECT_EQ(obj.SetMode('r', origin.size(), &origin), kOk);
  EXPECT_EQ(obj.SetMode('w', origin.size(), &origin), kOk);
  EXPECT_FALSE(obj.IsReadOnly());
  EXPECT_EQ(obj.SetMode('r', origin.size(), &origin), kOk);
  EXPECT_TRUE(obj.IsReadOnly());
  EXPECT_EQ(obj.GetHashIndex(), "dir/a.bin");
  obj.SetHashIndex("dir/b.bin");
  EXPECT_EQ(obj.GetHashIndex(), "dir/b.bin");
}

TEST_F(CacheObjTest, CloseWithForceLeavesNoFile) {
  FakeOrigin origin(2 * kMiB);
  CacheObj obj(Dir(), "a.bin", 'r', origin.size(), &origin, &config_, "a.bin");
  std::vector<char> buffer(1000);
  _READDATA rd = ReadOf(buffer, 10, &origin);

  EXPECT_EQ(obj.Close(false), kOk);
  EXPECT_EQ(obj.Read(&rd), kOk);  // still attached
  EXPECT_EQ(FakeOrigin::FirstMismatch(buffer.data(), 10, 1000), -1);
  EXPECT_GT(obj.GetFileSize(), 0);

  EXPECT_EQ(obj.Close(true), kOk);
  EXPECT_EQ(obj.Read(&rd), kErrInvalidArgument);
  EXPECT_EQ(obj.Reserve(0, kSectorSize), kErrInvalidArgument);
  EXPECT_FALSE(obj.IsReadOnly());
  EXPECT_EQ(obj.GetFileSize(), 0);
  EXPECT_EQ(obj.Close(true), kErrNotOpen);

  // A mode request on an object without a file makes a new one.
  EXPECT_EQ(obj.SetMode('r', origin.size(), &origin), kOk);
  EXPECT_EQ(obj.Read(&rd), kOk);
}

TEST_F(CacheObjTest, WriteReportsTheCacheFileSize) {
  FakeOrigin origin(3 * kSectorSize);
  CacheObj obj(Dir(), "w.bin", 'w', origin.size(), &origin, &config_, "w.bin");
  std::vector<char> bytes(100, 'x');
  _WRITEDATA wd{bytes.data(), 10, bytes.size(), 0, std::make_shared<_FS_HANDLE>(), origin.size(), &origin};
  EXPECT_EQ(obj.Write(&wd), kOk);
  EXPECT_EQ(wd.transferred, 100u);
  // The head sector was fetched whole before the write.
  EXPECT_EQ(wd.file_size, kSectorSize);
  EXPECT_EQ(obj.Write(nullptr), kErrInvalidArgument);
}

// Readers on four threads, fetching through three queue workers: every read
// succeeds with the origin's bytes. Then mode switches while they read never
// free a file under a running read: whatever a read returns is the origin's.
TEST_F(CacheObjTest, ReadersThroughWorkersGetOriginBytesWhileModesSwitch) {
  FakeOrigin origin(20 * kMiB + 12345);
  CacheObj obj(Dir(), "busy.bin", 'r', origin.size(), &origin, &config_, "busy.bin");
  TestQueue queue(TestQueue::Mode::kRun, 3);
  for (bool switching : {false, true}) {
    std::atomic<int> reads{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
      readers.emplace_back([&, t] {
        std::mt19937_64 random(t + (switching ? 4 : 0));
        for (int i = 0; i < 40; ++i, ++reads) {
          const long long offset = static_cast<long long>(random() % static_cast<uint64_t>(origin.size()));
          // Reads stop at the end of the file, as a client that knows the size sends them.
          std::vector<char> buffer(1 + random() % std::min<uint64_t>(3 * kSectorSize, origin.size() - offset));
          _READDATA rd = ReadOf(buffer, offset, &origin);
          const unsigned int result = obj.Read(&rd);
          if ((result != kOk && !switching) || rd.transferred > buffer.size() ||
              FakeOrigin::FirstMismatch(buffer.data(), offset, static_cast<long long>(rd.transferred)) != -1)
            ++wrong;
        }
      });
    }
    for (int i = 0; switching && reads.load() < 160; ++i) {
      const int seen = reads.load();
      EXPECT_EQ(obj.SetMode(i % 2 == 0 ? 'w' : 'r', origin.size(), &origin), kOk);
      while (reads.load() == seen) std::this_thread::yield();
    }
    for (auto& r : readers) r.join();
    EXPECT_EQ(wrong.load(), 0) << (switching ? "with mode switches" : "read-only");
  }
}

}  // namespace
