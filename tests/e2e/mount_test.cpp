// The reference client against a real nginx, through a real FUSE mount:
// every byte read through the volume is the origin's.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "client/support/child_process.h"
#include "client/support/nginx_server.h"
#include "client/support/test_bytes.h"
#include "client/support/volume_mount.h"

namespace {

constexpr long long kMiB = 1 << 20;

// The whole file through read(2) in 1 MiB calls; errno of a failed read in
// *error (0 when none). `first_read` is set once the first call returned.
std::string ReadFile(const std::string& path, int* error = nullptr, std::promise<void>* first_read = nullptr) {
  int ignored = 0;
  error = error != nullptr ? error : &ignored;
  const int fd = open(path.c_str(), O_RDONLY);
  *error = fd < 0 ? errno : 0;
  std::string all;
  std::vector<char> buffer(kMiB);
  for (ssize_t got = 1; fd >= 0 && got > 0;) {
    got = read(fd, buffer.data(), buffer.size());
    if (got < 0) *error = errno;
    if (got > 0) all.append(buffer.data(), static_cast<size_t>(got));
    if (first_read != nullptr) std::exchange(first_read, nullptr)->set_value();
  }
  if (fd >= 0) close(fd);
  return all;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  const bool written = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  return close(fd) == 0 && written;
}

// Bytes on disk under `dir` (allocated blocks, so sparse files count as held).
long long DiskUsage(const std::string& dir) {
  long long total = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    struct stat st;
    if (lstat(entry.path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) total += st.st_blocks * 512LL;
  }
  return total;
}

class MountTest : public ::testing::Test {
 protected:
  // Starts nginx (with `server_extra`) and mounts it; skips where either
  // cannot run here.
  void StartAll(const std::string& server_extra = "", std::vector<std::string> mount_options = {}) {
    std::string why;
    if (!NginxServer::Installed(&why) || !VolumeMount::FuseUsable(&why)) {
      GTEST_SKIP() << why;
    }
    nginx_ = std::make_unique<NginxServer>(server_extra);
    ASSERT_TRUE(nginx_->Start(&why)) << why;
    mount_options.insert(mount_options.begin(), {"--threads", "4", "--timeout-ms", "3000"});
    mount_ = std::make_unique<VolumeMount>(nginx_->Url(), mount_options);
    bool not_permitted = false;
    if (!mount_->Mount(&why, &not_permitted)) {
      if (not_permitted) {
        GTEST_SKIP() << "FUSE tests skipped: " << why;
      }
      FAIL() << why;
    }
  }

  void TearDown() override {
    if (mount_) {
      EXPECT_EQ(mount_->Unmount(), 0) << mount_->Messages();
    }
  }

  // GETs of file bytes; directory listings are fetched again as they age.
  int Gets() const {
    int count = 0;
    for (const auto& request : nginx_->Requests()) {
      count += request.method == "GET" && !request.uri.empty() && request.uri.back() != '/';
    }
    return count;
  }

  std::unique_ptr<NginxServer> nginx_;
  std::unique_ptr<VolumeMount> mount_;
};

TEST_F(MountTest, EveryFileMatchesTheOriginAndWarmReadsStayLocal) {
  StartAll();
  if (IsSkipped()) return;
  std::map<std::string, std::string> files = {
      {"big.bin", RandomBytes(24 * kMiB + 12345, 1)},
      {"name with spaces.txt", "spaces survive the trip\n"},
      {"empty", ""},
  };
  for (int i = 0; i < 12; ++i) files["small/f" + std::to_string(i)] = RandomBytes(256 * 1024, 10 + i);
  for (auto& [name, bytes] : files) nginx_->WriteFile(name, bytes);

  // Cold reads at random places from many threads, then every whole file.
  const std::string& big = files["big.bin"];
  std::atomic<int> mismatches{0}, failures{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 8; ++t) {
    readers.emplace_back([&, t] {
      const int fd = open(mount_->Path("big.bin").c_str(), O_RDONLY);
      std::mt19937 random(100 + t);
      std::vector<char> buffer(256 * 1024);
      for (int i = 0; fd >= 0 && i < 150; ++i) {
        const size_t size = 1 + random() % buffer.size();
        const off_t offset = static_cast<off_t>(random() % big.size());
        const ssize_t got = pread(fd, buffer.data(), size, offset);
        const size_t expected = std::min(size, big.size() - static_cast<size_t>(offset));
        if (got != static_cast<ssize_t>(expected)) ++failures;
        if (got > 0 && memcmp(buffer.data(), big.data() + offset, static_cast<size_t>(got)) != 0) ++mismatches;
      }
      failures += fd < 0;
      if (fd >= 0) close(fd);
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(failures, 0) << mount_->Messages();
  for (auto& [name, bytes] : files) EXPECT_TRUE(Same(ReadFile(mount_->Path(name)), bytes)) << name;
  struct stat st;
  ASSERT_EQ(stat(mount_->Path("big.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(big.size()));
  ASSERT_EQ(stat(mount_->Path("small").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_NE(stat(mount_->Path("missing").c_str(), &st), 0);
  EXPECT_EQ(errno, ENOENT);

  const int cold_gets = Gets();
  for (auto& [name, bytes] : files) EXPECT_TRUE(Same(ReadFile(mount_->Path(name)), bytes)) << name;
  // Opens ask the origin whether the file changed (HEAD), never for bytes.
  EXPECT_EQ(Gets(), cold_gets) << "a warm re-read fetched from the origin";

  Json::Value stats;
  std::istringstream(ReadFile(mount_->Path(".korvcache-stats"))) >> stats;
  long long total = 0;
  for (auto& entry : files) total += static_cast<long long>(entry.second.size());
  EXPECT_GE(stats["bytes_served"].asInt64(), 2 * total);
  EXPECT_GE(stats["bytes_served_from_cache"].asInt64(), total);
  EXPECT_GE(stats["bytes_fetched"].asInt64(), total);
  EXPECT_GT(stats["origin_requests"].asInt64(), 0);
  EXPECT_EQ(stats["limit_bytes"].asUInt64(), 4ULL << 30);
  // A second volume on the same mount point is refused.
  EXPECT_EQ(RunProgram({ClientBinary("korvmount"), nginx_->Url(), mount_->mountpoint(), "-f"}, nullptr, nullptr), 1);
}

TEST_F(MountTest, WritesTruncatesAndNewFilesReachTheOrigin) {
  StartAll();
  if (IsSkipped()) return;
  std::string doc = RandomBytes(3 * kMiB + 5, 3);
  nginx_->WriteFile("docs/doc.bin", doc);
  const std::string fresh = RandomBytes(kMiB + 3, 4);
  ASSERT_TRUE(WriteFile(mount_->Path("docs/new.bin"), fresh));
  EXPECT_TRUE(Same(nginx_->ReadFile("docs/new.bin"), fresh)) << "the upload at close did not arrive";

  const int fd = open(mount_->Path("docs/doc.bin").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, "patched", 7, kMiB + 1), 7);
  doc.replace(kMiB + 1, 7, "patched");
  ASSERT_EQ(pwrite(fd, "end", 3, static_cast<off_t>(doc.size())), 3);
  doc += "end";
  ASSERT_EQ(close(fd), 0);
  EXPECT_TRUE(Same(nginx_->ReadFile("docs/doc.bin"), doc));

  ASSERT_EQ(truncate(mount_->Path("docs/doc.bin").c_str(), 700000), 0);
  doc.resize(700000);
  EXPECT_TRUE(Same(nginx_->ReadFile("docs/doc.bin"), doc));
  EXPECT_TRUE(Same(ReadFile(mount_->Path("docs/doc.bin")), doc));
}

TEST_F(MountTest, CacheDirectoryStaysWithinTheLimit) {
  // Clearing every 100 ms, sectors old enough at once: the quota thread trims
  // the directory as fast as reads fill it.
  StartAll("", {"--limit", "64M", "--settings",
                R"({"cache": {"clear": {"period": 100, "usedblock": 0, "unusedblock": 0,
                               "over": {"usedblock": 0, "unusedblock": 0}}}})"});
  if (IsSkipped()) return;
  const long long limit = 64 * kMiB;
  // All files are there before the first listing: a listing is trusted for a second.
  for (int i = 0; i < 4; ++i) nginx_->WriteFile("f" + std::to_string(i), RandomBytes(40 * kMiB, 20 + i));
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(Same(ReadFile(mount_->Path("f" + std::to_string(i))), RandomBytes(40 * kMiB, 20 + i))) << i;
  }
  // The directory may run over between two clearing passes (100 ms apart),
  // never after one: korvmount's quota thread is waited for, up to 3 s.
  long long usage = DiskUsage(mount_->cache_dir());
  for (int i = 0; i < 300 && usage > limit; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    usage = DiskUsage(mount_->cache_dir());
  }
  EXPECT_LE(usage, limit) << "160 MiB read through a 64 MiB cache";
}

TEST_F(MountTest, OriginDyingMidReadGivesAnErrorThenRecovers) {
  // 4 MB/s per connection: the read is still running when nginx dies.
  StartAll("limit_rate 4m;");
  if (IsSkipped()) return;
  const std::string bytes = RandomBytes(16 * kMiB, 5);
  nginx_->WriteFile("slow.bin", bytes);
  int error = 0;
  std::string got;
  std::promise<void> first_read;
  std::future<void> reading = first_read.get_future();
  std::thread reader([&] { got = ReadFile(mount_->Path("slow.bin"), &error, &first_read); });
  reading.wait();
  nginx_->Stop();
  reader.join();
  EXPECT_EQ(error, EIO) << "read " << got.size() << " bytes";
  EXPECT_LT(got.size(), bytes.size());
  EXPECT_TRUE(got == bytes.substr(0, got.size())) << "bytes before the error differ from the origin's";

  std::string why;
  ASSERT_TRUE(nginx_->Start(&why)) << why;
  EXPECT_TRUE(Same(ReadFile(mount_->Path("slow.bin"), &error), bytes));
  EXPECT_EQ(error, 0);
}

}  // namespace
