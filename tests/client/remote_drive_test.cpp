// A RemoteDrive over a directory origin, without FUSE: what a mounted volume
// does for reads, writes, uploads and a changing or vanishing origin.
#include "remote_drive.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <sstream>

#include "client/support/test_bytes.h"
#include "directory_origin.h"
#include "support/file_helpers.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kSector = 512 * 1024;
constexpr long long kAll = 1LL << 40;
const char kNoReadAhead[] = R"({"cache": {"ra": {"hit": 1000}}})";

// Wraps the directory origin and makes it fail on demand: down (every
// request is unreachable) or uploads refused; `before_upload` runs inside
// every upload. Counts the reads it passes on.
class FaultyOrigin : public Origin {
 public:
  explicit FaultyOrigin(std::unique_ptr<Origin> inner) : inner_(std::move(inner)) {}

  std::atomic<bool> down{false}, refuse_uploads{false}, refuse_reads{false};
  std::atomic<int> reads{0};
  std::function<void()> before_upload = [] {};

  std::string Describe() const override { return inner_->Describe(); }
  OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries, std::string* error) override {
    return down ? Down(error) : inner_->List(path, entries, error);
  }
  OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) override {
    return down ? Down(error) : inner_->Stat(path, info, error);
  }
  OriginStatus ReadRange(const std::string& path, long long offset, long long length, const std::string& validator,
                         const ByteSink& sink, std::string* error) override {
    if (down || refuse_reads) return Down(error);
    ++reads;
    return inner_->ReadRange(path, offset, length, validator, sink, error);
  }
  OriginStatus Upload(const std::string& path, long long size, const ByteSource& source, std::string* error) override {
    before_upload();
    if (refuse_uploads) return OriginStatus::kFailed;
    return down ? Down(error) : inner_->Upload(path, size, source, error);
  }

 private:
  static OriginStatus Down(std::string* error) {
    *error = "connection refused (test)";
    return OriginStatus::kUnreachable;
  }

  const std::unique_ptr<Origin> inner_;
};

class DriveTest : public ::testing::Test {
 protected:
  void SetUp() override { Mount(""); }

  // Listings are trusted for an hour: the drive lists again only when it
  // has a reason to.
  void Mount(const std::string& settings, OriginOptions origin_options = OriginOptions()) {
    std::string error;
    auto faulty = std::make_unique<FaultyOrigin>(MakeDirectoryOrigin(origin_.path(), origin_options, &error));
    faulty_ = faulty.get();
    DriveOptions options;
    options.cache_dir = cache_.File("cache");
    options.limit = 256ULL << 20;
    options.threads = 2;
    options.log_mask = 0;
    options.listing_ttl_ms = 3600 * 1000;
    options.settings_json = settings;
    options.retry.first_delay_ms = 1;
    drive_ = std::make_unique<RemoteDrive>(std::move(faulty), options);
    ASSERT_TRUE(drive_->Start(&error)) << error;
  }

  // The open's status, with the handle in *handle when given.
  int OpenStatus(const std::string& path, int flags = O_RDONLY, std::unique_ptr<OpenHandle>* handle = nullptr) {
    std::unique_ptr<OpenHandle> opened;
    const int status = drive_->Open(path, flags, &opened);
    if (handle != nullptr) *handle = std::move(opened);
    drive_->Release(std::move(opened));
    return status;
  }
  std::unique_ptr<OpenHandle> Open(const std::string& path, int flags = O_RDONLY) {
    std::unique_ptr<OpenHandle> handle;
    EXPECT_EQ(OpenStatus(path, flags, &handle), 0) << path;
    return handle;
  }

  // Reads [offset, offset + size) in kernel-sized pieces; a negative errno
  // ends it and is returned in *status.
  std::string ReadRange(OpenHandle* handle, long long offset, long long size, long long* status = nullptr) {
    std::string out;
    std::vector<char> buffer(128 * 1024);
    for (long long got = 1; got > 0 && static_cast<long long>(out.size()) < size;) {
      const long long done = static_cast<long long>(out.size());
      got = drive_->Read(handle, buffer.data(), std::min<long long>(buffer.size(), size - done), offset + done);
      if (status != nullptr) *status = std::min(got, 0LL);
      out.append(buffer.data(), static_cast<size_t>(std::max(got, 0LL)));
    }
    return out;
  }
  std::string ReadWhole(const std::string& path) {
    auto handle = Open(path);
    std::string all = handle ? ReadRange(handle.get(), 0, kAll) : "";
    drive_->Release(std::move(handle));
    return all;
  }
  long long Write(OpenHandle* handle, long long offset, const std::string& bytes) {
    return drive_->Write(handle, bytes.data(), bytes.size(), offset);
  }
  std::string OnOrigin(const std::string& name) { return FileContents(origin_.File(name)); }
  std::vector<std::string> Names(const std::string& directory) {
    std::vector<OriginEntry> entries;
    EXPECT_EQ(drive_->ListDirectory(directory, &entries), 0) << directory;
    std::vector<std::string> names;
    for (const OriginEntry& entry : entries) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    return names;
  }
  // The size, or a negative errno.
  long long SizeOf(const std::string& path, FileAttributes* attributes = nullptr) {
    FileAttributes ignored;
    attributes = attributes != nullptr ? attributes : &ignored;
    const int status = drive_->GetAttributes(path, attributes);
    return status != 0 ? status : attributes->size;
  }

  TempDir origin_;
  TempDir cache_;
  FaultyOrigin* faulty_ = nullptr;
  std::unique_ptr<RemoteDrive> drive_;
};

TEST_F(DriveTest, ReadsAreExactAndWarmReadsStayLocal) {
  Mount(kNoReadAhead);  // every origin read is done when the read that asked for it returns
  const std::string bytes = RandomBytes(3 * kSector + 100, 1);
  const long long size = static_cast<long long>(bytes.size());
  origin_.Write("data.bin", bytes);
  EXPECT_TRUE(Same(ReadWhole("/data.bin"), bytes));
  const int cold_reads = faulty_->reads;

  auto handle = Open("/data.bin");
  EXPECT_TRUE(Same(ReadRange(handle.get(), 0, kAll), bytes));
  EXPECT_TRUE(Same(ReadRange(handle.get(), kSector - 7, 20), bytes.substr(kSector - 7, 20)));
  char byte;
  EXPECT_EQ(drive_->Read(handle.get(), &byte, 1, size), 0);
  EXPECT_EQ(drive_->Read(handle.get(), &byte, 1, -1), -EINVAL);
  EXPECT_EQ(Write(handle.get(), 0, "x"), -EBADF);
  EXPECT_EQ(faulty_->reads, cold_reads) << "a warm read went to the origin";

  Json::Value stats;
  std::istringstream(ReadWhole("/.korvcache-stats")) >> stats;
  const Json::Value& file = stats["open_files"][0];
  EXPECT_EQ(stats["open_files"].size(), 1u);
  EXPECT_EQ(file["path"].asString(), "/data.bin");
  for (const Json::Value& counters : {stats, file}) {
    EXPECT_EQ(counters["bytes_fetched"].asInt64(), size);
    EXPECT_EQ(counters["bytes_served"].asInt64(), 2 * size + 20);
  }
  EXPECT_EQ(file["size"].asInt64(), size);
  EXPECT_EQ(stats["origin_requests"].asInt64(), cold_reads);
  EXPECT_GE(stats["bytes_served_from_cache"].asInt64(), size + 20);
  EXPECT_GE(stats["cache_directory_bytes"].asInt64(), size);
  EXPECT_EQ(stats["limit_bytes"].asInt64(), 256 << 20);
  drive_->Release(std::move(handle));

  ASSERT_EQ(mkdir(origin_.File("dir").c_str(), 0755), 0);
  EXPECT_EQ(Names("/"), (std::vector<std::string>{".korvcache-stats", "data.bin", "dir"}));
  EXPECT_EQ(SizeOf("/data.bin"), size);
  EXPECT_EQ(SizeOf("/missing.bin"), -ENOENT);
  EXPECT_EQ(SizeOf("/no-dir/x.bin"), -ENOENT);
  FileAttributes attributes;
  EXPECT_TRUE(SizeOf("/dir", &attributes) == 0 && attributes.is_directory);
  EXPECT_TRUE(SizeOf("/.korvcache-stats", &attributes) >= 0 && attributes.read_only);
  EXPECT_EQ(OpenStatus("/missing.bin"), -ENOENT);
  EXPECT_EQ(OpenStatus("/dir"), -EISDIR);
  EXPECT_EQ(OpenStatus("/.korvcache-stats", O_WRONLY), -EACCES);
  EXPECT_EQ(drive_->Truncate("/.korvcache-stats", nullptr, 0), -EACCES);
}

TEST_F(DriveTest, ChangedOriginFileIsFetchedAfreshUnlessOpenForWriting) {
  const std::string first(kSector + 10, 'a'), second(kSector + 10, 'b');
  origin_.Write("doc.txt", first);
  EXPECT_TRUE(Same(ReadWhole("/doc.txt"), first));
  // Same size, new contents: the validator (size and mtime) tells them apart.
  origin_.Write("doc.txt", second);
  struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + 5, 0}};
  utimensat(AT_FDCWD, origin_.File("doc.txt").c_str(), times, 0);
  EXPECT_TRUE(Same(ReadWhole("/doc.txt"), second));

  // While a writer has the file open, its copy is what every open sees.
  auto writer = Open("/doc.txt", O_RDWR);
  EXPECT_TRUE(Same(ReadRange(writer.get(), 0, kAll), second));
  origin_.Write("doc.txt", "short now");
  EXPECT_TRUE(Same(ReadWhole("/doc.txt"), second));
  EXPECT_EQ(drive_->Release(std::move(writer)), 0);
  EXPECT_EQ(ReadWhole("/doc.txt"), "short now");
  EXPECT_EQ(OnOrigin("doc.txt"), "short now") << "an open without writes uploaded";
  ASSERT_EQ(unlink(origin_.File("doc.txt").c_str()), 0);
  EXPECT_EQ(OpenStatus("/doc.txt"), -ENOENT);
}

TEST_F(DriveTest, UnreachableOriginServesWhatIsCachedAndFailsTheRestNeverWithZeros) {
  Mount(kNoReadAhead);  // only what is read is cached
  const std::string bytes = RandomBytes(8 * kSector, 2);
  origin_.Write("big.bin", bytes);
  origin_.Write("r.bin", bytes.substr(0, 3 * kSector));
  auto reader = Open("/big.bin");
  EXPECT_TRUE(Same(ReadRange(reader.get(), 0, kSector), bytes.substr(0, kSector)));
  drive_->Release(std::move(reader));
  auto writer = Open("/r.bin", O_RDWR);
  ASSERT_EQ(Write(writer.get(), 0, "x"), 1);  // fetches sector 0 only
  faulty_->down = true;
  reader = Open("/big.bin");
  ASSERT_TRUE(reader);
  EXPECT_TRUE(Same(ReadRange(reader.get(), 0, kSector), bytes.substr(0, kSector)));
  long long status = 0;
  EXPECT_EQ(ReadRange(reader.get(), 6 * kSector, 1000, &status), "");
  EXPECT_EQ(status, -EIO);
  EXPECT_EQ(SizeOf("/big.bin"), 8 * kSector);
  EXPECT_EQ(OpenStatus("/never-seen.bin"), -EIO);
  // A file being written fails where it would need origin bytes, rather than take zeros for them.
  EXPECT_EQ(Write(writer.get(), kSector + 5, "y"), -EIO);
  EXPECT_EQ(Write(writer.get(), 3 * kSector, "z"), -EIO);
  EXPECT_EQ(ReadRange(writer.get(), 2 * kSector, 16, &status), "");
  EXPECT_EQ(status, -EIO);
  EXPECT_EQ(drive_->Truncate("/r.bin", writer.get(), 2 * kSector + 5), -EIO);
  EXPECT_EQ(drive_->Flush(writer.get()), -EIO);
  EXPECT_TRUE(Same(OnOrigin("r.bin"), bytes.substr(0, 3 * kSector))) << "a partial upload replaced the origin's file";
  // Nor when only its holes cannot be fetched and the origin would take the upload.
  faulty_->down = false;
  faulty_->refuse_reads = true;
  EXPECT_EQ(drive_->Flush(writer.get()), -EIO);
  EXPECT_TRUE(Same(OnOrigin("r.bin"), bytes.substr(0, 3 * kSector))) << "holes uploaded as zeros";
  faulty_->refuse_reads = false;

  EXPECT_TRUE(Same(ReadRange(reader.get(), 6 * kSector, 1000), bytes.substr(6 * kSector, 1000)));
  EXPECT_EQ(drive_->Flush(writer.get()), 0);
  EXPECT_TRUE(Same(OnOrigin("r.bin"), "x" + bytes.substr(1, 3 * kSector - 1)));
  drive_->Release(std::move(reader));
  drive_->Release(std::move(writer));
}

TEST_F(DriveTest, WritesTruncatesAndNewFilesReachTheOrigin) {
  std::string expected = RandomBytes(2 * kSector + 10, 4);
  origin_.Write("w.bin", expected);
  auto handle = Open("/w.bin", O_RDWR);
  ASSERT_TRUE(handle);
  // An append to a file nothing of which is cached yet: the origin's bytes
  // of the sector it starts in stay.
  ASSERT_EQ(Write(handle.get(), static_cast<long long>(expected.size()), "tail"), 4);
  expected += "tail";
  ASSERT_EQ(Write(handle.get(), kSector + 3, "12345"), 5);
  expected.replace(kSector + 3, 5, "12345");
  EXPECT_TRUE(Same(ReadRange(handle.get(), 0, kAll), expected));
  EXPECT_EQ(drive_->Flush(handle.get()), 0);
  EXPECT_TRUE(Same(OnOrigin("w.bin"), expected));
  // Cut to inside a sector, then grow: the grown part reads as zeros.
  ASSERT_EQ(drive_->Truncate("/w.bin", handle.get(), kSector + 6), 0);
  expected.resize(kSector + 6);
  EXPECT_TRUE(Same(ReadRange(handle.get(), 0, kAll), expected));
  EXPECT_EQ(drive_->Release(std::move(handle)), 0);
  EXPECT_TRUE(Same(OnOrigin("w.bin"), expected));
  ASSERT_EQ(drive_->Truncate("/w.bin", nullptr, 2 * kSector), 0);
  expected.resize(2 * kSector, '\0');
  EXPECT_TRUE(Same(OnOrigin("w.bin"), expected));
  EXPECT_TRUE(Same(ReadWhole("/w.bin"), expected));
  EXPECT_EQ(drive_->Truncate("/w.bin", nullptr, -1), -EINVAL);

  // A new file is listed while it is written and after its upload.
  EXPECT_EQ(Names("/"), (std::vector<std::string>{".korvcache-stats", "w.bin"}));
  const std::string fresh = RandomBytes(kSector + 77, 5);
  auto created = Open("/new.bin", O_WRONLY | O_CREAT);
  ASSERT_TRUE(created);
  ASSERT_EQ(Write(created.get(), 0, fresh), static_cast<long long>(fresh.size()));
  EXPECT_EQ(SizeOf("/new.bin"), static_cast<long long>(fresh.size()));
  const std::vector<std::string> with_new = {".korvcache-stats", "new.bin", "w.bin"};
  EXPECT_EQ(Names("/"), with_new);
  EXPECT_EQ(drive_->Flush(created.get()), 0);
  EXPECT_EQ(Names("/"), with_new) << "the listing from before the upload";
  EXPECT_EQ(drive_->Release(std::move(created)), 0);
  EXPECT_TRUE(Same(OnOrigin("new.bin"), fresh));
  EXPECT_TRUE(Same(ReadWhole("/new.bin"), fresh));
}

TEST_F(DriveTest, UnmountWhileFetchesRunIsClean) {
  OriginOptions slow;
  slow.bandwidth = 4 << 20;
  Mount("", slow);
  origin_.Write("slow.bin", RandomBytes(8 * kSector, 7));
  auto handle = Open("/slow.bin");
  char buffer[100];
  ASSERT_EQ(drive_->Read(handle.get(), buffer, sizeof(buffer), 0), 100);
  drive_->Release(std::move(handle));
  drive_->Shutdown();  // the rest of the reservation is still arriving
}

TEST_F(DriveTest, AnUploadInProgressStallsNoOpen) {
  origin_.Write("a.bin", "old a");
  origin_.Write("b.bin", "bbb");
  auto writer = Open("/a.bin", O_RDWR);
  ASSERT_EQ(Write(writer.get(), 0, "new"), 3);
  std::promise<void> entered, release;
  faulty_->before_upload = [&, held = release.get_future().share()] { entered.set_value(), held.wait(); };
  auto flushed = std::async(std::launch::async, [&] { return drive_->Flush(writer.get()); });
  if (entered.get_future().wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    release.set_value();
    FAIL() << "the upload never started";
  }
  auto opened = std::async(std::launch::async, [&] { return ReadWhole("/b.bin") + "|" + ReadWhole("/a.bin"); });
  const bool in_time = opened.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  release.set_value();
  EXPECT_TRUE(in_time) << "opens waited for an upload";
  EXPECT_EQ(opened.get(), "bbb|new a");
  EXPECT_EQ(flushed.get(), 0);
  faulty_->before_upload = [] {};  // the promises go with this scope
  EXPECT_EQ(OnOrigin("a.bin"), "new a");
  drive_->Release(std::move(writer));
}

TEST_F(DriveTest, FailedUploadLosesNothing) {
  origin_.Write("keep.txt", "original");
  faulty_->refuse_uploads = true;
  auto handle = Open("/keep.txt", O_RDWR | O_TRUNC);
  ASSERT_TRUE(handle);
  ASSERT_EQ(Write(handle.get(), 0, "changed"), 7);
  EXPECT_EQ(drive_->Flush(handle.get()), -EIO);
  EXPECT_EQ(drive_->Release(std::move(handle)), -EIO);
  EXPECT_EQ(OnOrigin("keep.txt"), "original");
  origin_.Write("keep.txt", "changed on the origin meanwhile");
  EXPECT_EQ(ReadWhole("/keep.txt"), "changed") << "the local copy is what the volume shows";

  faulty_->refuse_uploads = false;
  EXPECT_EQ(drive_->Release(Open("/keep.txt", O_WRONLY)), 0);
  EXPECT_EQ(OnOrigin("keep.txt"), "changed");

  // Still refused at unmount: the data is kept beside the cache.
  faulty_->refuse_uploads = true;
  handle = Open("/keep.txt", O_WRONLY);
  ASSERT_EQ(Write(handle.get(), 0, "CH"), 2);
  drive_->Release(std::move(handle));
  drive_->Shutdown();
  EXPECT_EQ(FileContents(cache_.File("cache/unsaved/keep.txt")), "CHanged");
  EXPECT_EQ(OnOrigin("keep.txt"), "changed");
}

}  // namespace
