// The reference client against a real nginx, through a real FUSE mount and
// through korvcat: every byte read is the origin's, every byte written reaches it.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <thread>

#include "client/support/child_process.h"
#include "client/support/nginx_server.h"
#include "client/support/test_bytes.h"
#include "sha256.h"
#include "support/file_helpers.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kMiB = 1 << 20;

// The whole file through read(2) in 1 MiB calls, up to the first failed
// call, whose errno goes to *error (0 when none). `after_first_read` runs
// once the first call returned.
std::string ReadFile(const std::string& path, int* error = nullptr, std::function<void()> after_first_read = {}) {
  int ignored = 0;
  error = error != nullptr ? error : &ignored;
  const int fd = open(path.c_str(), O_RDONLY);
  *error = fd < 0 ? errno : 0;
  std::string all;
  std::vector<char> buffer(kMiB);
  for (ssize_t got = 1; fd >= 0 && got > 0;) {
    got = read(fd, buffer.data(), buffer.size());
    if (got < 0) *error = errno;
    all.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (after_first_read) std::exchange(after_first_read, nullptr)();
  }
  if (fd >= 0) close(fd);
  return all;
}

// Each test runs its own nginx and its own korvmount of it, in the
// foreground as a child of the test, on a fresh mount point and cache.
class MountTest : public ::testing::Test {
 protected:
  // Starts both (nginx with `server_extra`); false when the test cannot go
  // on: skipped where nginx or FUSE cannot run here, or failed.
  bool StartAll(const std::string& server_extra = "", const std::vector<std::string>& options = {}) {
    Start(server_extra, options);
    return !IsSkipped() && !HasFatalFailure();
  }
  void Start(const std::string& server_extra, const std::vector<std::string>& options) {
    std::string why;
    if (!NginxServer::Installed(&why)) GTEST_SKIP() << why;
    // Opened, not only looked up: a container may list the device and refuse it.
    const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse >= 0) close(fuse);
    if (fuse < 0 || (getuid() != 0 && access("/usr/bin/fusermount3", X_OK) != 0)) {
      GTEST_SKIP() << "FUSE tests skipped: /dev/fuse cannot be opened, or not root and no fusermount3";
    }
    nginx_ = std::make_unique<NginxServer>(server_extra);
    ASSERT_TRUE(nginx_->Start(&why)) << why;
    ASSERT_EQ(mkdir(mnt_.c_str(), 0755), 0);
    std::vector<std::string> argv = {ClientBinary("korvmount"), nginx_->Url(), mnt_, "--foreground",
                                     "--cache-dir", dir_.File("cache"), "--threads", "4", "--timeout-ms", "3000"};
    argv.insert(argv.end(), options.begin(), options.end());
    const int log_fd = open(dir_.File("korvmount.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    pid_ = SpawnChild(argv, log_fd, log_fd);
    close(log_fd);
    for (int tick = 0; tick < 2000 && !Mounted(); ++tick) {
      if (WaitChild(pid_, std::chrono::milliseconds(10)) < 0) continue;
      pid_ = -1;
      if (Messages().find("cannot mount on") != std::string::npos) GTEST_SKIP() << "FUSE tests skipped: " << Messages();
      FAIL() << "korvmount ended before mounting: " << Messages();
    }
    ASSERT_TRUE(Mounted()) << "korvmount did not mount within 20 s: " << Messages();
  }

  // Unmounts and expects korvmount to end cleanly, also when a test failed.
  void TearDown() override {
    if (pid_ < 0) return;
    if (Mounted() && umount2(mnt_.c_str(), 0) != 0) RunProgram({"/usr/bin/fusermount3", "-u", mnt_}, nullptr);
    const int status = WaitChild(pid_, std::chrono::seconds(30));
    if (status < 0) {
      StopChild(pid_);
      umount2(mnt_.c_str(), MNT_DETACH);
    }
    EXPECT_EQ(status, 0) << Messages();
  }

  bool Mounted() const { return FileContents("/proc/self/mountinfo").find(" " + mnt_ + " ") != std::string::npos; }
  std::string Path(const std::string& rel) const { return mnt_ + "/" + rel; }
  std::string Messages() const { return FileContents(dir_.File("korvmount.log")); }
  // Every byte is counted before it reaches the cache.
  long long BytesFetched() const {
    Json::Value stats;
    std::istringstream(ReadFile(Path(".korvcache-stats"))) >> stats;
    return stats["bytes_fetched"].asInt64();
  }

  TempDir dir_;
  const std::string mnt_ = dir_.File("mnt");
  pid_t pid_ = -1;
  std::unique_ptr<NginxServer> nginx_;
};

TEST_F(MountTest, ReadsMatchTheOriginWarmReadsStayLocalAndWritesReachIt) {
  if (!StartAll()) return;
  const std::string big = RandomBytes(24 * kMiB + 12345, 1);
  const std::pair<std::string, std::string> files[] = {
      {"big.bin", big}, {"sub dir/name with spaces.txt", "spaces survive\n"}, {"empty", ""}};
  for (auto& [name, bytes] : files) nginx_->WriteFile(name, bytes);
  std::string doc = RandomBytes(3 * kMiB + 5, 3);
  nginx_->WriteFile("docs/doc.bin", doc);

  // Cold reads at random places from many threads, then every whole file.
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 6; ++t) {
    readers.emplace_back([&, t] {
      const int fd = open(Path("big.bin").c_str(), O_RDONLY);
      std::mt19937 random(100 + t);
      std::vector<char> buffer(256 * 1024);
      for (int i = 0; i < 100; ++i) {
        const size_t size = 1 + random() % buffer.size(), offset = random() % big.size();
        const ssize_t got = pread(fd, buffer.data(), size, static_cast<off_t>(offset));
        wrong += got < 0 || static_cast<size_t>(got) != std::min(size, big.size() - offset) ||
                 memcmp(buffer.data(), big.data() + offset, static_cast<size_t>(got)) != 0;
      }
      close(fd);
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0) << Messages();
  for (auto& [name, bytes] : files) EXPECT_TRUE(Same(ReadFile(Path(name)), bytes)) << name;
  struct stat st;
  EXPECT_TRUE(stat(Path("big.bin").c_str(), &st) == 0 && st.st_size == static_cast<off_t>(big.size()));
  EXPECT_TRUE(stat(Path("sub dir").c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  EXPECT_TRUE(stat(Path("missing").c_str(), &st) != 0 && errno == ENOENT);
  const long long cold_bytes = BytesFetched();
  for (auto& [name, bytes] : files) EXPECT_TRUE(Same(ReadFile(Path(name)), bytes)) << name;
  EXPECT_EQ(BytesFetched(), cold_bytes) << "a warm re-read fetched from the origin";
  EXPECT_EQ(RunProgram({ClientBinary("korvmount"), nginx_->Url(), mnt_, "-f"}, nullptr), 1)
      << "a second volume on the same mount point";

  // A new file is uploaded at close; a patch, an append and a cut of a file
  // of which only part is cached keep the origin's other bytes.
  const std::string fresh = RandomBytes(kMiB + 3, 4);
  int fd = open(Path("docs/new.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  EXPECT_EQ(write(fd, fresh.data(), fresh.size()), static_cast<ssize_t>(fresh.size()));
  ASSERT_EQ(close(fd), 0);
  EXPECT_TRUE(Same(nginx_->ReadFile("docs/new.bin"), fresh));
  fd = open(Path("docs/doc.bin").c_str(), O_RDWR);
  EXPECT_EQ(pwrite(fd, "patched", 7, kMiB + 1), 7);
  EXPECT_EQ(pwrite(fd, "end", 3, static_cast<off_t>(doc.size())), 3);
  ASSERT_EQ(close(fd), 0);
  doc.replace(kMiB + 1, 7, "patched");
  EXPECT_TRUE(Same(nginx_->ReadFile("docs/doc.bin"), doc + "end"));
  ASSERT_EQ(truncate(Path("docs/doc.bin").c_str(), 700000), 0);
  doc.resize(700000);
  EXPECT_TRUE(Same(nginx_->ReadFile("docs/doc.bin"), doc));
  EXPECT_TRUE(Same(ReadFile(Path("docs/doc.bin")), doc));
}

TEST_F(MountTest, CacheDirectoryStaysWithinTheLimit) {
  // Clearing every 100 ms, sectors old enough at once: the quota thread trims
  // the directory as fast as reads fill it.
  if (!StartAll("", {"--limit", "64M", "--settings", R"({"cache": {"clear": {"period": 100, "usedblock": 0,
                       "unusedblock": 0, "over": {"usedblock": 0, "unusedblock": 0}}}})"})) {
    return;
  }
  // All files are there before the first listing: a listing is trusted for a second.
  for (int i = 0; i < 4; ++i) nginx_->WriteFile("f" + std::to_string(i), RandomBytes(40 * kMiB, 20 + i));
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(Same(ReadFile(Path("f" + std::to_string(i))), RandomBytes(40 * kMiB, 20 + i))) << i;
  }
  // Bytes on disk (allocated blocks: sparse files count as held). The
  // directory may run over between two clearing passes (100 ms apart), never
  // after one: korvmount's quota thread is waited for, up to 3 s.
  auto usage = [&] {
    long long total = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.File("cache"))) {
      struct stat st;
      if (lstat(entry.path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) total += st.st_blocks * 512LL;
    }
    return total;
  };
  for (int i = 0; i < 300 && usage() > 64 * kMiB; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_LE(usage(), 64 * kMiB) << "160 MiB read through a 64 MiB cache";
}

TEST_F(MountTest, OriginDyingMidReadGivesAnErrorThenRecovers) {
  // 4 MB/s per connection: the read is still running when nginx dies.
  if (!StartAll("limit_rate 4m;")) return;
  const std::string bytes = RandomBytes(16 * kMiB, 5);
  nginx_->WriteFile("slow.bin", bytes);
  int error = 0;
  const std::string got = ReadFile(Path("slow.bin"), &error, [&] { nginx_->Stop(); });
  EXPECT_EQ(error, EIO) << "read " << got.size() << " bytes";
  EXPECT_LT(got.size(), bytes.size());
  EXPECT_TRUE(got == bytes.substr(0, got.size())) << "bytes before the error differ from the origin's";

  std::string why;
  ASSERT_TRUE(nginx_->Start(&why)) << why;
  EXPECT_TRUE(Same(ReadFile(Path("slow.bin"), &error), bytes));
  EXPECT_EQ(error, 0);
}

// korvcat: one remote file through the cache to standard output, the path
// that works where FUSE does not.
TEST(Korvcat, ReadsVerifiesAndReportsErrors) {
  std::string why;
  if (!NginxServer::Installed(&why)) GTEST_SKIP() << why;
  NginxServer nginx;
  ASSERT_TRUE(nginx.Start(&why)) << why;
  const std::string bytes = RandomBytes(5 * kMiB + 17, 7);
  nginx.WriteFile("dir/file one.bin", bytes);
  Sha256 sha;
  sha.Update(bytes.data(), bytes.size());
  TempDir cache;
  const std::string url = nginx.Url() + "/dir/file%20one.bin";
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{url, "--verify", sha.HexDigest()}, 0, bytes},
      {{url, "--verify", std::string(64, '0')}, 1, bytes},
      {{nginx.Url() + "/dir/missing"}, 1, ""},
      {{url, "--limit", "lots"}, 2, ""},
      // With the origin stopped: a file cached by an earlier run is not served without asking the origin.
      {{url, "--timeout-ms", "1000"}, 1, ""},
  };
  for (const auto& [args, status, expected] : cases) {
    SCOPED_TRACE(args[0] + " " + (args.size() > 1 ? args[1] : ""));
    if (args.size() == 3 && args[1] == "--timeout-ms") nginx.Stop();
    std::vector<std::string> argv = {ClientBinary("korvcat"), "--cache-dir", cache.path()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out;
    EXPECT_EQ(RunProgram(argv, &out), status);
    EXPECT_TRUE(Same(out, expected));
  }
}

}  // namespace
