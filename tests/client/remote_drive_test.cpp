// A RemoteDrive over a directory origin, without FUSE: what a mounted volume
// does for reads, writes, uploads and a changing or vanishing origin.
#include "remote_drive.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <random>
#include <sstream>

#include "client/support/faulty_origin.h"
#include "directory_origin.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kSector = 512 * 1024;

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

std::string FileContents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream all;
  all << in.rdbuf();
  return all.str();
}

class DriveTest : public ::testing::Test {
 protected:
  void SetUp() override { Mount(""); }

  void Mount(const std::string& settings, OriginOptions origin_options = OriginOptions()) {
    std::string error;
    auto faulty = std::make_unique<FaultyOrigin>(MakeDirectoryOrigin(origin_.path(), origin_options, &error));
    faulty_ = faulty.get();
    DriveOptions options;
    options.cache_dir = cache_.path() + "/cache";
    options.limit = 256ULL << 20;
    options.threads = 2;
    options.log_mask = 0;
    options.listing_ttl_ms = 0;
    options.settings_json = settings;
    options.retry.first_delay_ms = 1;
    drive_ = std::make_unique<RemoteDrive>(std::move(faulty), options);
    ASSERT_TRUE(drive_->Start(&error)) << error;
  }

  std::unique_ptr<OpenHandle> OpenOrDie(const std::string& path, int flags = O_RDONLY) {
    std::unique_ptr<OpenHandle> handle;
    EXPECT_EQ(drive_->Open(path, flags, &handle), 0) << path;
    return handle;
  }

  // Reads [offset, offset + size) in kernel-sized pieces; a negative errno
  // ends it and is returned in *status.
  std::string ReadRange(OpenHandle* handle, long long offset, long long size, long long* status = nullptr) {
    std::string out;
    std::vector<char> buffer(128 * 1024);
    while (static_cast<long long>(out.size()) < size) {
      const size_t want = static_cast<size_t>(std::min<long long>(buffer.size(), size - static_cast<long long>(out.size())));
      const long long got = drive_->Read(handle, buffer.data(), want, offset + static_cast<long long>(out.size()));
      if (status != nullptr) *status = got < 0 ? got : 0;
      if (got <= 0) break;
      out.append(buffer.data(), static_cast<size_t>(got));
    }
    return out;
  }

  std::string ReadWhole(const std::string& path) {
    auto handle = OpenOrDie(path);
    if (!handle) return "";
    std::string all = ReadRange(handle.get(), 0, 1LL << 40);
    drive_->Release(std::move(handle));
    return all;
  }

  Json::Value Stats() {
    Json::Value root;
    std::istringstream in(ReadWhole("/.korvcache-stats"));
    in >> root;
    return root;
  }

  TempDir origin_;
  TempDir cache_;
  FaultyOrigin* faulty_ = nullptr;
  std::unique_ptr<RemoteDrive> drive_;
};

TEST_F(DriveTest, ReadsAreExactAndWarmReadsStayLocal) {
  const std::string bytes = RandomBytes(3 * kSector + 100, 1);
  origin_.Write("data.bin", bytes);
  EXPECT_EQ(ReadWhole("/data.bin"), bytes);
  const int cold_reads = faulty_->reads;
  EXPECT_GT(cold_reads, 0);

  auto handle = OpenOrDie("/data.bin");
  EXPECT_EQ(ReadRange(handle.get(), 0, 1LL << 40), bytes);
  EXPECT_EQ(ReadRange(handle.get(), kSector - 7, 20), bytes.substr(kSector - 7, 20));
  char byte;
  EXPECT_EQ(drive_->Read(handle.get(), &byte, 1, static_cast<long long>(bytes.size())), 0);
  EXPECT_EQ(faulty_->reads, cold_reads) << "a warm read went to the origin";

  const Json::Value stats = Stats();
  EXPECT_EQ(stats["origin_requests"].asInt64(), cold_reads);
  EXPECT_GE(stats["bytes_fetched"].asInt64(), static_cast<long long>(bytes.size()));
  EXPECT_GE(stats["bytes_served_from_cache"].asInt64(), static_cast<long long>(bytes.size()));
  EXPECT_GE(stats["cache_directory_bytes"].asInt64(), static_cast<long long>(bytes.size()));
  ASSERT_EQ(stats["open_files"].size(), 1u);
  EXPECT_EQ(stats["open_files"][0]["path"].asString(), "/data.bin");
  EXPECT_EQ(stats["open_files"][0]["size"].asInt64(), static_cast<long long>(bytes.size()));
  drive_->Release(std::move(handle));

  std::vector<OriginEntry> entries;
  ASSERT_EQ(drive_->ListDirectory("/", &entries), 0);
  std::vector<std::string> names;
  for (auto& entry : entries) names.push_back(entry.name);
  EXPECT_NE(std::find(names.begin(), names.end(), "data.bin"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), kStatsFileName), names.end());
  std::unique_ptr<OpenHandle> none;
  EXPECT_EQ(drive_->Open("/missing.bin", O_RDONLY, &none), -ENOENT);
  EXPECT_EQ(drive_->Open("/.korvcache-stats", O_WRONLY, &none), -EACCES);
}

TEST_F(DriveTest, ChangedOriginFileIsFetchedAfresh) {
  origin_.Write("doc.txt", std::string(kSector + 10, 'a'));
  EXPECT_EQ(ReadWhole("/doc.txt"), std::string(kSector + 10, 'a'));
  // Same size, new contents: the validator (size and mtime) tells them apart.
  origin_.Write("doc.txt", std::string(kSector + 10, 'b'));
  struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + 5, 0}};
  utimensat(AT_FDCWD, origin_.File("doc.txt").c_str(), times, 0);
  EXPECT_EQ(ReadWhole("/doc.txt"), std::string(kSector + 10, 'b'));
  origin_.Write("doc.txt", "short now");
  EXPECT_EQ(ReadWhole("/doc.txt"), "short now");
}

TEST_F(DriveTest, UnreachableOriginServesWhatIsCachedAndFailsTheRest) {
  Mount(R"({"cache": {"ra": {"hit": 1000}}})");  // no read-ahead: only what is read is cached
  const std::string bytes = RandomBytes(8 * kSector, 2);
  origin_.Write("big.bin", bytes);
  {
    auto handle = OpenOrDie("/big.bin");
    EXPECT_EQ(ReadRange(handle.get(), 0, kSector), bytes.substr(0, kSector));
    drive_->Release(std::move(handle));
  }
  faulty_->down = true;
  auto handle = OpenOrDie("/big.bin");
  ASSERT_TRUE(handle);
  EXPECT_EQ(ReadRange(handle.get(), 0, kSector), bytes.substr(0, kSector));
  long long status = 0;
  EXPECT_EQ(ReadRange(handle.get(), 6 * kSector, 1000, &status), "");
  EXPECT_EQ(status, -EIO);
  FileAttributes attributes;
  EXPECT_EQ(drive_->GetAttributes("/big.bin", &attributes), 0);
  EXPECT_EQ(attributes.size, static_cast<long long>(bytes.size()));
  std::unique_ptr<OpenHandle> other;
  EXPECT_EQ(drive_->Open("/never-seen.bin", O_RDONLY, &other), -EIO);

  faulty_->down = false;
  EXPECT_EQ(ReadRange(handle.get(), 6 * kSector, 1000), bytes.substr(6 * kSector, 1000));
  drive_->Release(std::move(handle));
}

TEST_F(DriveTest, DroppedTransfersResumeAndNeverMixBytes) {
  const std::string bytes = RandomBytes(5 * kSector + 3, 3);
  origin_.Write("f.bin", bytes);
  faulty_->drop_after = kSector + 1000;  // not on a sector boundary
  faulty_->drops = 3;
  EXPECT_EQ(ReadWhole("/f.bin"), bytes);
  EXPECT_EQ(faulty_->drops, 0);
}

TEST_F(DriveTest, WritesTruncatesAndNewFilesReachTheOrigin) {
  std::string expected = RandomBytes(2 * kSector + 10, 4);
  origin_.Write("w.bin", expected);
  EXPECT_EQ(ReadWhole("/w.bin"), expected);  // cached read-only first, then converted

  auto handle = OpenOrDie("/w.bin", O_RDWR);
  ASSERT_TRUE(handle);
  ASSERT_EQ(drive_->Write(handle.get(), "12345", 5, kSector + 3), 5);
  expected.replace(kSector + 3, 5, "12345");
  // An append starts inside the last sector, whose origin bytes must stay.
  ASSERT_EQ(drive_->Write(handle.get(), "tail", 4, static_cast<long long>(expected.size())), 4);
  expected += "tail";
  EXPECT_EQ(ReadRange(handle.get(), 0, 1LL << 40), expected);
  EXPECT_EQ(drive_->Flush(handle.get()), 0);
  EXPECT_EQ(FileContents(origin_.File("w.bin")), expected);
  drive_->Release(std::move(handle));

  // Cut to inside a sector, then grow: the grown part reads as zeros.
  ASSERT_EQ(drive_->Truncate("/w.bin", nullptr, kSector + 6), 0);
  expected.resize(kSector + 6);
  EXPECT_EQ(FileContents(origin_.File("w.bin")), expected);
  ASSERT_EQ(drive_->Truncate("/w.bin", nullptr, 2 * kSector), 0);
  expected.resize(2 * kSector, '\0');
  EXPECT_EQ(FileContents(origin_.File("w.bin")), expected);
  EXPECT_EQ(ReadWhole("/w.bin"), expected);

  mkdir(origin_.File("sub").c_str(), 0755);
  const std::string fresh = RandomBytes(kSector + 77, 5);
  auto created = OpenOrDie("/sub/new.bin", O_WRONLY | O_CREAT);
  ASSERT_TRUE(created);
  FileAttributes attributes;
  ASSERT_EQ(drive_->Write(created.get(), fresh.data(), fresh.size(), 0), static_cast<long long>(fresh.size()));
  EXPECT_EQ(drive_->GetAttributes("/sub/new.bin", &attributes), 0);
  EXPECT_EQ(attributes.size, static_cast<long long>(fresh.size()));
  std::vector<OriginEntry> entries;
  ASSERT_EQ(drive_->ListDirectory("/sub", &entries), 0);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "new.bin");
  EXPECT_EQ(drive_->Release(std::move(created)), 0);
  EXPECT_EQ(FileContents(origin_.File("sub/new.bin")), fresh);
  EXPECT_EQ(ReadWhole("/sub/new.bin"), fresh);
}

TEST_F(DriveTest, UnfetchableOriginBytesFailWritesAndUploadsInsteadOfBecomingZeros) {
  const std::string bytes = RandomBytes(3 * kSector, 6);
  origin_.Write("r.bin", bytes);
  auto handle = OpenOrDie("/r.bin", O_RDWR);
  ASSERT_TRUE(handle);
  ASSERT_EQ(drive_->Write(handle.get(), "x", 1, 0), 1);  // fetches sector 0 only
  faulty_->down = true;
  EXPECT_EQ(drive_->Write(handle.get(), "y", 1, kSector + 5), -EIO);
  EXPECT_EQ(drive_->Write(handle.get(), "z", 1, 3 * kSector), -EIO);
  char buffer[16];
  EXPECT_EQ(drive_->Read(handle.get(), buffer, sizeof(buffer), 2 * kSector), -EIO);
  EXPECT_EQ(drive_->Flush(handle.get()), -EIO);
  EXPECT_EQ(FileContents(origin_.File("r.bin")), bytes) << "a partial upload replaced the origin's file";

  faulty_->down = false;
  EXPECT_EQ(drive_->Flush(handle.get()), 0);
  EXPECT_EQ(FileContents(origin_.File("r.bin")), "x" + bytes.substr(1));
  drive_->Release(std::move(handle));
}

TEST_F(DriveTest, UnmountWhileFetchesRunIsClean) {
  OriginOptions slow;
  slow.bandwidth = 4 << 20;
  Mount("", slow);
  origin_.Write("slow.bin", RandomBytes(8 * kSector, 7));
  auto handle = OpenOrDie("/slow.bin");
  char buffer[100];
  ASSERT_EQ(drive_->Read(handle.get(), buffer, sizeof(buffer), 0), 100);
  drive_->Release(std::move(handle));
  drive_->Shutdown();  // the rest of the reservation is still arriving
}

TEST_F(DriveTest, FailedUploadLosesNothing) {
  origin_.Write("keep.txt", "original");
  faulty_->refuse_uploads = true;
  auto handle = OpenOrDie("/keep.txt", O_RDWR | O_TRUNC);
  ASSERT_TRUE(handle);
  ASSERT_EQ(drive_->Write(handle.get(), "changed", 7, 0), 7);
  EXPECT_EQ(drive_->Flush(handle.get()), -EIO);
  EXPECT_EQ(drive_->Release(std::move(handle)), -EIO);
  EXPECT_EQ(FileContents(origin_.File("keep.txt")), "original");
  EXPECT_EQ(ReadWhole("/keep.txt"), "changed") << "the local copy is what the volume shows";

  faulty_->refuse_uploads = false;
  handle = OpenOrDie("/keep.txt", O_WRONLY);
  EXPECT_EQ(drive_->Release(std::move(handle)), 0);
  EXPECT_EQ(FileContents(origin_.File("keep.txt")), "changed");

  // Still refused at unmount: the data is kept beside the cache.
  faulty_->refuse_uploads = true;
  handle = OpenOrDie("/keep.txt", O_WRONLY);
  ASSERT_EQ(drive_->Write(handle.get(), "CH", 2, 0), 2);
  drive_->Release(std::move(handle));
  drive_->Shutdown();
  EXPECT_EQ(FileContents(cache_.path() + "/cache/unsaved/keep.txt"), "CHanged");
  EXPECT_EQ(FileContents(origin_.File("keep.txt")), "changed");
}

}  // namespace
