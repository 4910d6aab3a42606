// korvmount against a real nginx, through a real FUSE mount: every byte read
// is the origin's, every byte written reaches it, and the cache directory
// stays within its limit. nginx and korvmount run as children of the test
// that die with it (also when it is killed).
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>

#include "client/support/test_bytes.h"
#include "e2e/mount_fixture.h"

namespace {

constexpr long long kMiB = 1 << 20;

// Bytes on disk, as du counts them (allocated blocks).
long long DiskUsage(const std::string& directory) {
  long long total = 0;
  struct stat st;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (lstat(entry.path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) total += st.st_blocks * 512LL;
  }
  return total;
}

TEST_F(MountTest, CacheDirectoryStaysWithinTheLimit) {
  // All files are there before the first listing: a listing is trusted for a second.
  for (int i = 0; i < 4; ++i) WriteOnOrigin("f #" + std::to_string(i), RandomBytes(40 * kMiB, 20 + i));
  for (int i = 0; i < 2000; ++i) WriteOnOrigin("small/" + std::to_string(i), RandomBytes(100, i));
  std::string doc = RandomBytes(3 * kMiB + 5, 3);
  WriteOnOrigin("sub dir/doc%.bin", doc);
  // A small file's cache holds its bytes, not a whole 512 KiB slot.
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(FileContents(Path("small/" + std::to_string(i))), RandomBytes(100, i)) << i;
  EXPECT_LT(DiskUsage(dir_.File("cache")), 16 * kMiB) << "2,000 files of 100 bytes";
  // 160 MiB through a 64 MiB cache, the directory sampled every 100 ms: a
  // pass starts whenever the limit is crossed, so it is never far over.
  std::atomic<bool> reading{true};
  std::atomic<long long> highest{0};
  std::thread sampler([&] {
    while (reading.load()) {
      highest.store(std::max(highest.load(), DiskUsage(dir_.File("cache"))));
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(Same(FileContents(Path("f #" + std::to_string(i))), RandomBytes(40 * kMiB, 20 + i))) << i;
  }
  reading.store(false);
  sampler.join();
  EXPECT_LE(highest.load(), 80 * kMiB) << "more than 1.25 times the limit while reading";
  const auto ended = std::chrono::steady_clock::now();
  while (DiskUsage(dir_.File("cache")) > 64 * kMiB && std::chrono::steady_clock::now() - ended < std::chrono::seconds(2)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_LE(DiskUsage(dir_.File("cache")), 64 * kMiB) << "over the limit 2 s after the reads";

  // Writes reach the origin: a new file at close; a patch, an append and a
  // cut of a file of which nothing is cached keep the origin's other bytes.
  const std::string fresh = RandomBytes(kMiB + 3, 4);
  int fd = open(Path("sub dir/new #1.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  EXPECT_EQ(write(fd, fresh.data(), fresh.size()), static_cast<ssize_t>(fresh.size()));
  ASSERT_EQ(close(fd), 0);
  EXPECT_TRUE(Same(FileContents(Origin("sub dir/new #1.bin")), fresh));
  fd = open(Path("sub dir/doc%.bin").c_str(), O_RDWR);
  EXPECT_EQ(pwrite(fd, "patched", 7, kMiB + 1), 7);
  EXPECT_EQ(pwrite(fd, "end", 3, static_cast<off_t>(doc.size())), 3);
  ASSERT_EQ(close(fd), 0);
  doc.replace(kMiB + 1, 7, "patched");
  EXPECT_TRUE(Same(FileContents(Origin("sub dir/doc%.bin")), doc + "end"));
  ASSERT_EQ(truncate(Path("sub dir/doc%.bin").c_str(), 700000), 0);
  doc.resize(700000);
  EXPECT_TRUE(Same(FileContents(Origin("sub dir/doc%.bin")), doc));
  EXPECT_TRUE(Same(FileContents(Path("sub dir/doc%.bin")), doc));
}

// Written through a korvmount that is killed before the upload it was
// leaving for later: the next korvmount on the same cache directory uploads
// it, and serves only the origin's bytes of a file the killed one was reading.
TEST_F(MountTest, WhatAKilledMountWroteIsUploadedByTheNext) {
  std::string doc = RandomBytes(3 * kMiB, 5);
  WriteOnOrigin("doc.bin", doc);
  const std::string fresh = RandomBytes(kMiB + 3, 6), big = RandomBytes(8 * kMiB, 8);
  WriteOnOrigin("big.bin", big);
  // Half of big.bin is kept by a clean unmount; the killed run reads the rest
  // into the same cache file, whose kept index must then not be trusted.
  ASSERT_TRUE(Same(FileContents(Path("big.bin")).substr(0, 4 * kMiB), big.substr(0, 4 * kMiB)));
  ASSERT_EQ(Unmount(0), 0);
  Mount({"--write-back", "3600"});
  ASSERT_TRUE(Same(FileContents(Path("big.bin")), big));
  int fd = open(Path("new.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  EXPECT_EQ(write(fd, fresh.data(), fresh.size()), static_cast<ssize_t>(fresh.size()));
  ASSERT_EQ(close(fd), 0);
  fd = open(Path("doc.bin").c_str(), O_RDWR);
  EXPECT_EQ(pwrite(fd, "patched", 7, kMiB + 1), 7);
  ASSERT_EQ(close(fd), 0);
  doc.replace(kMiB + 1, 7, "patched");
  EXPECT_FALSE(std::filesystem::exists(Origin("new.bin"))) << "a close uploaded";
  ASSERT_EQ(kill(korvmount_, SIGKILL), 0);
  EXPECT_EQ(WaitChild(korvmount_, std::chrono::seconds(30)), 128 + SIGKILL);
  korvmount_ = -1;
  Unmount(MNT_DETACH);
  Mount({});
  // The volume answers once the drive has started, and so has done what the last run left.
  EXPECT_TRUE(Same(FileContents(Path("new.bin")), fresh));
  EXPECT_TRUE(Same(FileContents(Origin("new.bin")), fresh));
  EXPECT_TRUE(Same(FileContents(Origin("doc.bin")), doc));
  EXPECT_TRUE(Same(FileContents(Path("big.bin")), big));
}

// The next mount on the same cache directory serves what the last one read,
// with nginx's file unchanged, and asks nginx for none of its bytes.
TEST_F(MountTest, ARemountServesWhatTheLastMountReadWithoutFetchingIt) {
  const std::string big = RandomBytes(20 * kMiB, 7);
  WriteOnOrigin("big.bin", big);
  ASSERT_TRUE(Same(FileContents(Path("big.bin")), big));
  ASSERT_EQ(Unmount(0), 0);
  Mount({});
  EXPECT_TRUE(Same(FileContents(Path("big.bin")), big));
  Json::Value stats;
  std::istringstream(FileContents(Path(".korvcache-stats"))) >> stats;
  EXPECT_EQ(stats["bytes_fetched"].asInt64(), 0);
  EXPECT_EQ(stats["bytes_served_from_kept_cache"].asInt64(), 20 * kMiB);
}

}  // namespace
