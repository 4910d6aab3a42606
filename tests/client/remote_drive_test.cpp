// A RemoteDrive over a directory origin, without FUSE: what a mounted volume
// does for reads, writes, uploads and a changing or vanishing origin.
#include "remote_drive.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <map>
#include <set>
#include <sstream>

#include "client/support/faulty_origin.h"
#include "client/support/test_bytes.h"
#include "common/platform.h"
#include "directory_origin.h"
#include "support/file_helpers.h"
#include "support/temp_dir.h"

namespace {

constexpr long long kSector = 512 * 1024;
const char kNoReadAhead[] = R"({"cache": {"ra": {"hit": 1000}}})";

class DriveTest : public ::testing::Test {
 protected:
  void SetUp() override { Mount(""); }

  // The drive's clock stands still unless Age() moves it: listings and
  // versions are trusted until then.
  // `write_back`: seconds, as --write-back; `cache`: the cache directory's name in cache_.
  void Mount(const std::string& settings, OriginOptions origin_options = OriginOptions(), long long write_back = -1,
             const std::string& cache = "cache") {
    std::string error;
    auto faulty = std::make_unique<FaultyOrigin>(MakeDirectoryOrigin(origin_.path(), origin_options, &error));
    faulty_ = faulty.get();
    DriveOptions options;
    options.cache_dir = cache_.File(cache);
    options.write_back_seconds = write_back;
    options.log_mask = 0;
    options.listing_ttl_ms = kWindowMs;
    options.clock = [this] { return now_.load(); };
    options.settings_json = settings;
    options.keep_cache = keep_cache_;
    options.files_ahead = files_ahead_;
    options.retry.first_delay_ms = 1;
    drive_ = std::make_unique<RemoteDrive>(std::move(faulty), options);
    ASSERT_TRUE(drive_->Start(&error)) << error;
  }

  // Past the window: what the drive knows of the origin must be asked again.
  void Age(long long ms = kWindowMs) { now_ = now_.load() + std::chrono::milliseconds(ms); }

  // Opens `path`, expecting `status`; the handle when it opened.
  std::unique_ptr<OpenHandle> Open(const std::string& path, int flags = O_RDONLY, int status = 0) {
    std::unique_ptr<OpenHandle> handle;
    EXPECT_EQ(drive_->Open(path, flags, &handle), status) << path;
    return handle;
  }
  // What one read of [offset, offset + size) returns: the bytes, or a negative errno as "error N".
  std::string ReadRange(OpenHandle* handle, long long offset = 0, long long size = 8 * kSector) {
    std::string out(static_cast<size_t>(size), '\0');
    const long long got = drive_->Read(handle, &out[0], out.size(), offset);
    return got < 0 ? "error " + std::to_string(got) : out.substr(0, static_cast<size_t>(got));
  }
  std::string ReadWhole(const std::string& path) {
    auto handle = Open(path);
    std::string all = handle ? ReadRange(handle.get()) : "";
    drive_->Release(std::move(handle));
    return all;
  }
  std::string OnOrigin(const std::string& name) { return FileContents(origin_.File(name)); }
  std::set<std::string> RootNames() {
    std::vector<OriginEntry> entries;
    EXPECT_EQ(drive_->ListDirectory("/", &entries), 0);
    std::set<std::string> names;
    for (const OriginEntry& entry : entries) names.insert(entry.name);
    return names;
  }
  // Every name beneath `dir`, directories marked "/": as the drive lists them,
  // or (`on_disk`) as the origin's directory holds them.
  std::string Tree(bool on_disk, const std::string& dir = "/") {
    std::set<std::string> tree;
    if (on_disk) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(origin_.path())) {
        tree.insert(entry.path().string().substr(origin_.path().size() + 1) + (entry.is_directory() ? "/" : ""));
      }
    } else {
      std::vector<OriginEntry> entries;
      EXPECT_EQ(drive_->ListDirectory(dir, &entries), 0) << dir;
      for (const OriginEntry& entry : entries) {
        const std::string path = (dir == "/" ? "" : dir.substr(1) + "/") + entry.name;
        if (entry.name != kStatsFileName) tree.insert(path + (entry.is_directory ? "/" : ""));
        if (entry.is_directory) tree.insert(Tree(false, "/" + path));
      }
    }
    std::string text;
    for (const std::string& name : tree) text += (text.empty() ? "" : " ") + name;
    return text;
  }
  // The size, or a negative errno; the attributes go to attributes_.
  long long SizeOf(const std::string& path) {
    const int status = drive_->GetAttributes(path, &attributes_);
    return status != 0 ? status : attributes_.size;
  }

  // The cache files the cache directory keeps for the next run.
  int KeptFiles() {
    int kept = 0;
    for (const auto& entry : std::filesystem::directory_iterator(cache_.File("cache"))) {
      kept += entry.path().extension() == ".index";
    }
    return kept;
  }
  long long Stat(const char* name) {
    Json::Value stats;
    std::istringstream(drive_->StatsJson()) >> stats;
    return stats[name].asInt64();
  }

  static constexpr long long kWindowMs = 1000;
  bool keep_cache_ = true;
  int files_ahead_ = 0;  // the requests each test counts are its own reads'
  std::atomic<DriveTime> now_{std::chrono::steady_clock::now()};
  TempDir origin_;
  TempDir cache_;
  FaultyOrigin* faulty_ = nullptr;
  std::unique_ptr<RemoteDrive> drive_;
  FileAttributes attributes_;
};

TEST_F(DriveTest, ReadsAreExactWarmReadsStayLocalAndStatsAndAttributesTellTheTruth) {
  Mount(kNoReadAhead);  // every origin read is done when the read that asked for it returns
  const std::string bytes = RandomBytes(3 * kSector + 100, 1);
  const long long size = static_cast<long long>(bytes.size());
  origin_.Write("data.bin", bytes);
  ASSERT_EQ(mkdir(origin_.File("dir").c_str(), 0755), 0);
  auto handle = Open("/data.bin");
  EXPECT_TRUE(Same(ReadRange(handle.get()), bytes));
  EXPECT_TRUE(Same(ReadRange(handle.get(), kSector - 7, 20), bytes.substr(kSector - 7, 20)));
  EXPECT_EQ(ReadRange(handle.get(), size, 1), "");

  Json::Value stats;
  std::istringstream(ReadWhole("/.korvcache-stats")) >> stats;
  EXPECT_EQ(stats["open_files"][0]["path"].asString(), "/data.bin");
  for (const Json::Value& counters : {stats, stats["open_files"][0]}) {
    EXPECT_EQ(counters["bytes_fetched"].asInt64(), size) << "a warm read went to the origin";
    EXPECT_EQ(counters["bytes_served"].asInt64(), size + 20);
  }
  drive_->Release(std::move(handle));

  for (const char* missing : {"/missing.bin", "/no-dir/x.bin"}) EXPECT_EQ(SizeOf(missing), -ENOENT) << missing;
  EXPECT_TRUE(SizeOf("/dir") == 0 && attributes_.is_directory);
  Open("/dir", O_RDONLY, -EISDIR);
  Open("/.korvcache-stats", O_WRONLY, -EACCES);
}

TEST_F(DriveTest, ChangedOriginFileIsFetchedAfreshUnlessOpenForWriting) {
  const std::string first(kSector + 10, 'a'), second(kSector + 10, 'b');
  origin_.Write("doc.txt", first);
  EXPECT_TRUE(Same(ReadWhole("/doc.txt"), first));
  // Same size, new contents: the validator (size and mtime) tells them apart.
  origin_.Write("doc.txt", second);
  struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + 5, 0}};
  utimensat(AT_FDCWD, origin_.File("doc.txt").c_str(), times, 0);
  Age();
  EXPECT_TRUE(Same(ReadWhole("/doc.txt"), second));

  // While a writer has the file open, its copy is what every open sees.
  auto writer = Open("/doc.txt", O_RDWR);
  EXPECT_TRUE(Same(ReadRange(writer.get()), second));
  origin_.Write("doc.txt", "short now");
  EXPECT_TRUE(Same(ReadWhole("/doc.txt"), second));
  EXPECT_EQ(drive_->Release(std::move(writer)), 0);
  Age();
  EXPECT_EQ(ReadWhole("/doc.txt"), "short now");
  ASSERT_EQ(unlink(origin_.File("doc.txt").c_str()), 0);
  Age();
  Open("/doc.txt", O_RDONLY, -ENOENT);
}

TEST_F(DriveTest, OpensWithinTheWindowAskTheOriginNothingAndLaterOnesRevalidate) {
  origin_.Write("b.txt", "bee");
  ASSERT_EQ(SizeOf("/b.txt"), 3);  // the listing tells the file's version
  const struct { long long age_ms; const char* rewrite; const char* read; int requests; } steps[] = {
      {0, nullptr, "bee", 1},      // the bytes, nothing else
      {0, nullptr, "bee", 0},
      {0, "b2", "bee", 0},         // the cached version is trusted within the window
      {kWindowMs, nullptr, "b2", 2},  // past it: the change is found and fetched afresh
      {kWindowMs, nullptr, "b2", 1},  // unchanged: asked once
      {kWindowMs / 2, nullptr, "b2", 0},
  };
  for (const auto& step : steps) {
    if (step.rewrite != nullptr) origin_.Write("b.txt", step.rewrite);
    Age(step.age_ms);
    const int before = faulty_->requests;
    EXPECT_EQ(ReadWhole("/b.txt"), step.read);
    EXPECT_EQ(faulty_->requests - before, step.requests) << step.read << " after " << step.age_ms << " ms";
  }
}

TEST_F(DriveTest, FilesOpenedOneAfterAnotherBringTheNextFilesFirstMiBIntoTheCache) {
  files_ahead_ = 8;
  Mount(kNoReadAhead);
  for (const char* dir : {"walked", "opened-once", "alone"}) ASSERT_EQ(mkdir(origin_.File(dir).c_str(), 0755), 0);
  std::map<std::string, std::string> bytes;
  for (const char* path : {"walked/a", "walked/b", "walked/c", "walked/d", "opened-once/a", "opened-once/b", "alone/a"}) {
    bytes[path] = RandomBytes(std::string(path) == "walked/d" ? 2 * kSector + 10 : 3000, bytes.size() + 1);
    origin_.Write(path, bytes[path]);
  }
  ASSERT_EQ(SizeOf("/opened-once/b"), 3000);
  for (const char* path : {"walked/a", "walked/b", "opened-once/a", "alone/a"}) {
    EXPECT_TRUE(Same(ReadWhole("/" + std::string(path)), bytes[path]));
  }
  drive_->WaitForReadAhead();
  faulty_->down = true;  // only the cache answers from now on
  EXPECT_TRUE(Same(ReadWhole("/walked/c"), bytes["walked/c"]));
  auto handle = Open("/walked/d");
  EXPECT_TRUE(Same(ReadRange(handle.get(), 0, 2 * kSector), bytes["walked/d"].substr(0, 2 * kSector)));
  EXPECT_EQ(ReadRange(handle.get(), 2 * kSector, 10), "error -5");  // beyond what is read ahead
  drive_->Release(std::move(handle));
  EXPECT_EQ(ReadWhole("/opened-once/b"), "error -5");  // one open is no walk
  EXPECT_EQ(Stat("bytes_served"), 5 * 3000 + 2 * kSector);  // reads ahead serve nobody
  // Walked again past the window: one listing tells every file's version.
  faulty_->down = false;
  Age();
  const int before = faulty_->requests, lists_before = faulty_->lists;
  for (const char* path : {"walked/a", "walked/b", "walked/c"}) {
    EXPECT_TRUE(Same(ReadWhole("/" + std::string(path)), bytes[path]));
  }
  drive_->WaitForReadAhead();
  EXPECT_EQ(faulty_->requests - before, 1);
  Age();
  EXPECT_TRUE(Same(ReadWhole("/alone/a"), bytes["alone/a"]));
  EXPECT_EQ(faulty_->requests - before, 2);
  EXPECT_EQ(faulty_->lists - lists_before, 1) << "a directory nobody walks: a Stat";
}

TEST_F(DriveTest, AReaderAtTheEndOfAGrowingFileReadsOnToItsNewEnd) {
  Mount(kNoReadAhead);
  const std::string big = RandomBytes(kSector + 10, 10), more = RandomBytes(kSector, 11);
  // `back`: the read starts that many bytes before the old end, as the
  // kernel's page reads do; it asks once the window is over.
  const struct { std::string first, appended; long long back; } cases[] = {
      {"first\n", "second\n", 0}, {big, more, 0}, {"abc", "def", 2}};
  for (const auto& c : cases) {
    origin_.Write("log", c.first);
    Age();
    auto tail = Open("/log");
    const long long end = static_cast<long long>(c.first.size());
    ASSERT_TRUE(Same(ReadRange(tail.get()), c.first));
    EXPECT_EQ(ReadRange(tail.get(), end), "") << "nothing new yet";
    origin_.Write("log", c.first + c.appended);
    if (c.back > 0) Age();
    const std::string now = c.first + c.appended;
    EXPECT_TRUE(Same(ReadRange(tail.get(), end - c.back), now.substr(end - c.back))) << end << " + " << c.appended.size();
    EXPECT_EQ(SizeOf("/log"), static_cast<long long>(now.size()));
    drive_->Release(std::move(tail));
  }
}

TEST_F(DriveTest, StatFsTellsTheOriginsSpaceElseTheCaches) {
  struct statvfs origin_fs, st;
  for (const bool silent : {false, true}) {
    faulty_->silent_space = silent;
    ASSERT_EQ(statvfs(origin_.path().c_str(), &origin_fs), 0);
    ASSERT_EQ(drive_->StatFs(&st), 0);
    const unsigned long long bytes = silent ? 4ULL << 30  // the drive's default limit
        : (origin_fs.f_blocks - origin_fs.f_bfree + origin_fs.f_bavail) * origin_fs.f_frsize;
    EXPECT_EQ(st.f_blocks * st.f_frsize, bytes / 4096 * 4096) << (silent ? "cache" : "origin");
  }
}

TEST_F(DriveTest, UnreachableOriginServesWhatIsCachedAndFailsTheRestNeverWithZeros) {
  Mount(kNoReadAhead);  // only what is read is cached
  const std::string bytes = RandomBytes(8 * kSector, 2);
  origin_.Write("big.bin", bytes);
  origin_.Write("r.bin", bytes.substr(0, 3 * kSector));
  auto reader = Open("/big.bin");
  EXPECT_TRUE(Same(ReadRange(reader.get(), 0, kSector), bytes.substr(0, kSector)));
  auto writer = Open("/r.bin", O_RDWR);
  faulty_->down = true;
  // A file's first change fetches what is not cached of it, and fails without it rather than take zeros.
  EXPECT_EQ(drive_->Write(writer.get(), "x", 1, 0), -EIO);
  EXPECT_TRUE(Same(ReadRange(reader.get(), 0, kSector), bytes.substr(0, kSector)));
  EXPECT_EQ(ReadRange(reader.get(), 6 * kSector, 1000), "error " + std::to_string(-EIO));
  EXPECT_EQ(SizeOf("/big.bin"), 8 * kSector);
  Open("/never-seen.bin", O_RDONLY, -EIO);
  faulty_->down = false;
  ASSERT_EQ(drive_->Write(writer.get(), "x", 1, 0), 1);
  faulty_->down = true;  // the whole file is local now: changes anywhere need nothing more
  EXPECT_EQ(drive_->Write(writer.get(), "y", 1, kSector + 5), 1);
  EXPECT_EQ(drive_->Write(writer.get(), "z", 1, 3 * kSector), 1);
  EXPECT_TRUE(Same(ReadRange(writer.get(), 2 * kSector, 16), bytes.substr(2 * kSector, 16)));
  EXPECT_EQ(drive_->Truncate("/r.bin", writer.get(), 2 * kSector + 5), 0);
  EXPECT_EQ(drive_->Flush(writer.get()), -EIO);
  faulty_->down = false;
  EXPECT_EQ(drive_->Flush(writer.get()), 0);
  EXPECT_TRUE(Same(OnOrigin("r.bin"), "x" + bytes.substr(1, kSector + 4) + "y" + bytes.substr(kSector + 6, kSector - 1)));
  drive_->Release(std::move(reader));
  drive_->Release(std::move(writer));
}

TEST_F(DriveTest, WritesTruncatesAndNewFilesReachTheOrigin) {
  std::string expected = RandomBytes(2 * kSector + 10, 4);
  origin_.Write("w.bin", expected);
  auto handle = Open("/w.bin", O_RDWR);
  // An append to a file nothing of which is cached yet: the origin's bytes
  // of the sector it starts in stay.
  ASSERT_EQ(drive_->Write(handle.get(), "tail", 4, static_cast<long long>(expected.size())), 4);
  expected += "tail";
  ASSERT_EQ(drive_->Write(handle.get(), "12345", 5, kSector + 3), 5);
  expected.replace(kSector + 3, 5, "12345");
  EXPECT_TRUE(Same(ReadRange(handle.get()), expected));
  // Cut to inside a sector, then grow: the grown part reads as zeros.
  ASSERT_EQ(drive_->Truncate("/w.bin", handle.get(), kSector + 6), 0);
  EXPECT_EQ(drive_->Release(std::move(handle)), 0);
  ASSERT_EQ(drive_->Truncate("/w.bin", nullptr, 2 * kSector), 0);
  expected.resize(kSector + 6);
  expected.resize(2 * kSector, '\0');
  EXPECT_TRUE(Same(OnOrigin("w.bin"), expected));

  // A new file is listed while it is written and after its upload; in a
  // listed directory it costs no question beyond its upload.
  const std::string fresh = RandomBytes(kSector + 77, 5);
  const std::set<std::string> listed = {".korvcache-stats", "new.bin", "w.bin"};
  RootNames();
  const int before = faulty_->requests;
  auto created = Open("/new.bin", O_WRONLY | O_CREAT);
  ASSERT_EQ(drive_->Write(created.get(), fresh.data(), fresh.size(), 0), static_cast<long long>(fresh.size()));
  EXPECT_EQ(SizeOf("/new.bin"), static_cast<long long>(fresh.size()));
  EXPECT_EQ(RootNames(), listed);
  EXPECT_EQ(drive_->Flush(created.get()), 0);
  EXPECT_EQ(RootNames(), listed) << "the listing from before the upload";
  EXPECT_EQ(drive_->Release(std::move(created)), 0);
  EXPECT_EQ(SizeOf("/new.bin"), static_cast<long long>(fresh.size()));
  EXPECT_EQ(RootNames(), listed);
  EXPECT_EQ(faulty_->requests - before, 0);
  EXPECT_TRUE(Same(OnOrigin("new.bin"), fresh));
}

TEST_F(DriveTest, AnUploadInProgressStallsNoOpen) {
  origin_.Write("a.bin", "old a");
  origin_.Write("b.bin", "bbb");
  auto writer = Open("/a.bin", O_RDWR);
  ASSERT_EQ(drive_->Write(writer.get(), "new", 3, 0), 3);
  std::promise<void> entered, release;
  faulty_->before_upload = [&, held = release.get_future().share()] { entered.set_value(), held.wait(); };
  auto flushed = std::async(std::launch::async, [&] { return drive_->Flush(writer.get()); });
  ASSERT_EQ(entered.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready) << "no upload";
  auto opened = std::async(std::launch::async, [&] { return ReadWhole("/b.bin") + "|" + ReadWhole("/a.bin"); });
  const bool in_time = opened.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  release.set_value();
  EXPECT_TRUE(in_time) << "opens waited for an upload";
  EXPECT_EQ(opened.get(), "bbb|new a");
  EXPECT_EQ(flushed.get(), 0);
  faulty_->before_upload = [] {};  // the promises go with this scope
  drive_->Release(std::move(writer));
}

TEST_F(DriveTest, FailedUploadLosesNothingAndUnmountWhileFetchesRunIsClean) {
  OriginOptions slow;
  slow.bandwidth = 4 << 20;
  Mount("", slow);
  origin_.Write("keep.txt", "original");
  faulty_->refuse_uploads = true;
  auto handle = Open("/keep.txt", O_RDWR | O_TRUNC);
  ASSERT_EQ(drive_->Write(handle.get(), "changed", 7, 0), 7);
  EXPECT_EQ(drive_->Release(std::move(handle)), -EIO);
  origin_.Write("keep.txt", "changed on the origin meanwhile");
  EXPECT_EQ(ReadWhole("/keep.txt"), "changed") << "the local copy is what the volume shows";
  faulty_->refuse_uploads = false;
  EXPECT_EQ(drive_->Release(Open("/keep.txt", O_WRONLY)), 0);
  EXPECT_EQ(OnOrigin("keep.txt"), "changed");

  // Still refused at unmount, while a read's reservation is still arriving:
  // the data is kept beside the cache.
  faulty_->refuse_uploads = true;
  handle = Open("/keep.txt", O_WRONLY);
  ASSERT_EQ(drive_->Write(handle.get(), "CH", 2, 0), 2);
  drive_->Release(std::move(handle));
  origin_.Write("slow.bin", RandomBytes(8 * kSector, 7));
  auto reader = Open("/slow.bin");
  ASSERT_EQ(ReadRange(reader.get(), 0, 100).size(), 100u);
  drive_->Release(std::move(reader));
  drive_->Shutdown();
  EXPECT_EQ(FileContents(cache_.File("cache/unsaved/keep.txt")), "CHanged");
}

TEST_F(DriveTest, WritesLeftByACrashAreUploadedWhereTheOriginIsUnchangedAndKeptOtherwise) {
  Mount("", OriginOptions(), 3600);  // closed files wait for their upload
  const std::string big = RandomBytes(2 * kSector, 11);
  const struct { std::string path, before, to, meanwhile; bool uploaded, synced_first = false; } cases[] = {
      {"/same.bin", big, "", "", true},  // only the written sector cached: the rest is fetched first
      {"/changed.bin", big, "", "changed", false},
      {"/a/new.txt", "", "", "", true},
      {"/b/new.txt", "", "", "appeared", false},  // the same name in the cache directory, numbered
      {"/renamed.txt", "", "/a/moved.txt", "", true},
      {"/synced.txt", "", "", "", true, true},  // based on the version its own upload made
  };
  ASSERT_TRUE(mkdir(origin_.File("a").c_str(), 0755) == 0 && mkdir(origin_.File("b").c_str(), 0755) == 0);
  std::map<std::string, std::string> expected;
  std::vector<std::unique_ptr<OpenHandle>> open;
  for (const auto& c : cases) {
    if (!c.before.empty()) origin_.Write(c.path.substr(1), c.before);
    auto handle = Open(c.path, O_RDWR | O_CREAT);
    ASSERT_EQ(drive_->Write(handle.get(), "written", 7, kSector), 7) << c.path;
    if (c.synced_first) {
      ASSERT_EQ(drive_->Sync(handle.get()), 0);
      ASSERT_EQ(drive_->Write(handle.get(), "written", 7, kSector), 7);
    }
    std::string& bytes = expected[c.path] = c.before;
    bytes.resize(std::max<size_t>(bytes.size(), kSector + 7), '\0');
    bytes.replace(kSector, 7, "written");
    EXPECT_EQ(c.to.empty() ? 0 : drive_->Rename(c.path, c.to, false), 0);
    // Closed, and so waiting for its upload; the others stay open.
    EXPECT_EQ(c.path == "/same.bin" ? drive_->Release(std::move(handle)) : 0, 0);
    open.push_back(std::move(handle));
  }
  // A crash leaves the cache directory as it is now.
  std::filesystem::copy(cache_.File("cache"), cache_.File("crashed"), std::filesystem::copy_options::recursive);
  cache_.Write("crashed/journal/torn.rec", "korvmount journal 1\npath /same.bin\nlocal same");
  faulty_->refuse_uploads = true;
  for (auto& handle : open) drive_->Release(std::move(handle));
  drive_.reset();
  for (const auto& c : cases) {
    if (!c.meanwhile.empty()) origin_.Write(c.path.substr(1), c.meanwhile);
  }
  Mount("", OriginOptions(), -1, "crashed");
  for (const auto& c : cases) {
    const std::string at = c.to.empty() ? c.path : c.to;
    EXPECT_TRUE(Same(OnOrigin(at.substr(1)), c.uploaded ? expected[c.path] : c.meanwhile)) << at;
    EXPECT_TRUE(Same(FileContents(cache_.File("crashed/unsaved" + at)), c.uploaded ? "" : expected[c.path])) << at;
  }
  std::set<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(cache_.File("crashed/journal"))) {
    left.insert(entry.path().filename());
  }
  EXPECT_EQ(left, (std::set<std::string>{"lock", "torn.unreadable"}));
}

TEST_F(DriveTest, WriteBackClosesBeforeTheUploadFsyncReportsItAndUnmountUploadsTheRest) {
  Mount("", OriginOptions(), 3600);
  std::atomic<int> uploads{0};
  faulty_->before_upload = [&] { ++uploads; };
  const struct { const char* path; bool sync, refused; int status; } steps[] = {
      {"/a.txt", false, false, 0},   // closed: uploaded at unmount
      {"/b.txt", true, true, -EIO},  // fsync reports the failed upload...
      {"/b.txt", true, false, 0},    // ...and the next one that succeeds
      {"/c.txt", false, true, 0},
  };
  for (const auto& step : steps) {
    faulty_->refuse_uploads = step.refused;
    auto handle = Open(step.path, O_WRONLY | O_CREAT);
    ASSERT_EQ(drive_->Write(handle.get(), step.path, 6, 0), 6);
    EXPECT_EQ(step.sync ? drive_->Sync(handle.get()) : drive_->Release(std::move(handle)), step.status) << step.path;
    if (handle) {
      EXPECT_EQ(drive_->Release(std::move(handle)), 0);
    }
  }
  EXPECT_EQ(uploads, 2) << "a close uploaded";
  EXPECT_EQ(OnOrigin("b.txt") + "|" + OnOrigin("a.txt"), "/b.txt|");
  faulty_->refuse_uploads = false;
  drive_->Shutdown();
  EXPECT_EQ(OnOrigin("a.txt") + OnOrigin("c.txt"), "/a.txt/c.txt");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(cache_.File("cache/journal")), {}), 1) << "records left";
}

TEST_F(DriveTest, NameChangesReachTheOriginAndTheNextListing) {
  origin_.Write("a", "A");
  origin_.Write("b", "B");
  ASSERT_EQ(mkdir(origin_.File("d").c_str(), 0755), 0);
  origin_.Write("d/f", "F");
  ASSERT_EQ(Tree(false), "a b d/ d/f");  // listed once: every later listing shows the change at once
  const struct { const char* op; std::string path, to; int status; const char* tree; } steps[] = {
      {"mkdir", "/e", "", 0, "a b d/ d/f e/"},
      {"mkdir", "/e", "", -EEXIST, "a b d/ d/f e/"},
      {"mkdir", "/x/y", "", -ENOENT, "a b d/ d/f e/"},
      {"rmdir", "/d", "", -ENOTEMPTY, "a b d/ d/f e/"},
      {"rename", "/a", "/e/a", 0, "b d/ d/f e/ e/a"},
      {"noreplace", "/b", "/e/a", -EEXIST, "b d/ d/f e/ e/a"},
      {"rename", "/b", "/e/a", 0, "d/ d/f e/ e/a"},
      {"rename", "/d", "/g", 0, "e/ e/a g/ g/f"},
      {"rename", "/g", "/g/h", -EINVAL, "e/ e/a g/ g/f"},
      {"rename", "/none", "/e/z", -ENOENT, "e/ e/a g/ g/f"},
      {"unlink", "/e/a", "", 0, "e/ g/ g/f"},
      {"unlink", "/e/a", "", -ENOENT, "e/ g/ g/f"},
      {"unlink", "/.korvcache-stats", "", -EACCES, "e/ g/ g/f"},
      {"rmdir", "/e", "", 0, "g/ g/f"},
  };
  for (const auto& step : steps) {
    const std::string op = step.op;
    const int status = op == "mkdir"    ? drive_->MakeDirectory(step.path)
                       : op == "rmdir"  ? drive_->RemoveDirectory(step.path)
                       : op == "unlink" ? drive_->Unlink(step.path)
                                        : drive_->Rename(step.path, step.to, op == "noreplace");
    EXPECT_EQ(status, step.status) << op << " " << step.path;
    EXPECT_EQ(Tree(false) + " | on disk: " + Tree(true), step.tree + (" | on disk: " + std::string(step.tree))) << op;
  }
  EXPECT_EQ(drive_->SetModificationTime("/g/f", 1000000000, false), 0);
  EXPECT_TRUE(SizeOf("/g/f") == 1 && attributes_.mtime == 1000000000);
}

TEST_F(DriveTest, RenamedFilesKeepTheirCacheAndHandlesAndRemovedOnesAreNeverUploaded) {
  Mount(kNoReadAhead);
  const std::string bytes = RandomBytes(2 * kSector + 9, 8);
  ASSERT_EQ(mkdir(origin_.File("dir").c_str(), 0755), 0);
  const std::string big = RandomBytes(6 * kSector, 9);  // read in part before its directory is renamed
  origin_.Write("dir/in.bin", big);
  origin_.Write("cached.bin", bytes);
  origin_.Write("old.txt", "old");
  origin_.Write("over.txt", "over");
  EXPECT_TRUE(Same(ReadWhole("/cached.bin"), bytes));
  auto partly = Open("/dir/in.bin");
  // Two sectors: the least a read fetches, so that none is still arriving below.
  EXPECT_TRUE(Same(ReadRange(partly.get(), 0, 2 * kSector), big.substr(0, 2 * kSector)));
  auto reader = Open("/over.txt", O_RDWR);
  ASSERT_EQ(drive_->Write(reader.get(), "O", 1, 0), 1);
  const long long sent = faulty_->sent;
  ASSERT_EQ(drive_->Rename("/cached.bin", "/moved.bin", false), 0);
  ASSERT_EQ(drive_->Rename("/dir", "/dir2", false), 0);
  EXPECT_TRUE(Same(ReadWhole("/moved.bin"), bytes));
  EXPECT_EQ(faulty_->sent, sent) << "cached bytes fetched again";
  EXPECT_TRUE(Same(ReadRange(partly.get()), big)) << "the rest is not fetched from the new name";
  drive_->Release(std::move(partly));
  origin_.Write("cached.bin", "another file");  // under the old name: nothing of the renamed one
  EXPECT_EQ(ReadWhole("/cached.bin"), "another file");
  const long long cached = BytesInDirectory(cache_.File("cache"));
  EXPECT_EQ(drive_->Unlink("/moved.bin"), 0);
  EXPECT_LE(BytesInDirectory(cache_.File("cache")), cached - 2 * kSector) << "the removed file's cache stayed";

  // Written, then renamed over a file another handle writes: the first
  // uploads to the new name at its close, the other keeps its bytes to itself.
  auto writer = Open("/old.txt", O_RDWR);
  ASSERT_EQ(drive_->Write(writer.get(), "NEW", 3, 0), 3);
  ASSERT_EQ(drive_->Rename("/old.txt", "/over.txt", false), 0);
  ASSERT_EQ(drive_->Write(writer.get(), "!", 1, 3), 1);
  EXPECT_EQ(drive_->Release(std::move(writer)), 0);
  EXPECT_EQ(OnOrigin("over.txt"), "NEW!");
  EXPECT_EQ(ReadRange(reader.get()), "Over");
  EXPECT_EQ(drive_->Release(std::move(reader)), 0);
  EXPECT_EQ(ReadWhole("/over.txt"), "NEW!");

  // New files: one renamed before its first upload, one given a time, one unlinked.
  auto created = Open("/new.txt", O_WRONLY | O_CREAT);
  auto stamped = Open("/stamped.txt", O_WRONLY | O_CREAT);
  auto doomed = Open("/doomed.txt", O_WRONLY | O_CREAT);
  for (auto* handle : {created.get(), stamped.get(), doomed.get()}) ASSERT_EQ(drive_->Write(handle, "fresh", 5, 0), 5);
  EXPECT_EQ(drive_->Rename("/new.txt", "/dir2/new.txt", false), 0);
  EXPECT_EQ(drive_->SetModificationTime("/stamped.txt", 1000000000, false), 0);
  EXPECT_EQ(drive_->Unlink("/doomed.txt"), 0);
  const char* tree = "cached.bin dir2/ dir2/in.bin dir2/new.txt over.txt stamped.txt";
  EXPECT_EQ(Tree(false), tree);
  for (auto* handle : {&created, &stamped, &doomed}) EXPECT_EQ(drive_->Release(std::move(*handle)), 0);
  EXPECT_EQ(Tree(true), tree);
  EXPECT_EQ(OnOrigin("dir2/new.txt") + OnOrigin("stamped.txt"), "freshfresh");
  struct stat st;
  EXPECT_TRUE(stat(origin_.File("stamped.txt").c_str(), &st) == 0 && st.st_mtime == 1000000000);
}

TEST_F(DriveTest, ReadCopiesOutliveTheDriveWhileTheOriginHoldsTheirVersionAndRemovedOnesDoNot) {
  const std::string big = RandomBytes(3 * kSector + 100, 30), before(kSector, 'a'), after(kSector, 'b');
  const std::map<std::string, std::string> files = {{"big.bin", big}, {"small.txt", "small"}, {"changed", before},
      {"unlinked", "u"}, {"unlinked-open", "o"}, {"replaced", "r"}, {"over", "over"}};
  for (const auto& [name, bytes] : files) origin_.Write(name, bytes);
  for (const auto& [name, bytes] : files) ASSERT_TRUE(Same(ReadWhole("/" + name), bytes)) << name;
  auto open = Open("/unlinked-open");
  EXPECT_EQ(drive_->Unlink("/unlinked"), 0);
  EXPECT_EQ(drive_->Unlink("/unlinked-open"), 0);
  EXPECT_EQ(ReadRange(open.get()), "o") << "an unlinked file still open is still readable";
  drive_->Release(std::move(open));
  EXPECT_EQ(drive_->Rename("/over", "/replaced", false), 0);
  drive_->Shutdown();
  EXPECT_EQ(KeptFiles(), 4) << "big.bin, small.txt, changed and replaced (over) only";
  // Same size, another version: only the version tells the copy is stale.
  origin_.Write("changed", after);
  struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + 5, 0}};
  utimensat(AT_FDCWD, origin_.File("changed").c_str(), times, 0);

  const std::map<std::string, std::string> now = {
      {"big.bin", big}, {"small.txt", "small"}, {"changed", after}, {"replaced", "over"}};
  const long long all = static_cast<long long>(big.size() + 5 + after.size() + 4);
  const struct { bool keep; long long fetched, from_kept; int kept_after; } runs[] = {
      {true, static_cast<long long>(after.size()), all - static_cast<long long>(after.size()), 4},
      {false, all, 0, 0},  // starts cold, and leaves nothing for the next
      {true, all, 0, 4},
  };
  for (const auto& run : runs) {
    keep_cache_ = run.keep;
    Mount("");
    EXPECT_EQ(Stat("kept_bytes_found_at_start") >= all, run.from_kept > 0) << Stat("kept_bytes_found_at_start");
    const long long sent = faulty_->sent;
    for (const auto& [name, bytes] : now) EXPECT_TRUE(Same(ReadWhole("/" + name), bytes)) << name;
    EXPECT_EQ(faulty_->sent - sent, run.fetched) << "keep " << run.keep;
    EXPECT_EQ(Stat("bytes_served_from_kept_cache"), run.from_kept) << "keep " << run.keep;
    drive_->Shutdown();
    EXPECT_EQ(KeptFiles(), run.kept_after) << "keep " << run.keep;
  }
}

TEST_F(DriveTest, TheDirectoryOriginNeverLeavesItsRoot) {
  TempDir outside;
  outside.Write("secret.txt", "secret");
  struct stat before, after;
  ASSERT_EQ(stat(outside.File("secret.txt").c_str(), &before), 0);
  ASSERT_EQ(symlink(outside.path().c_str(), origin_.File("out").c_str()), 0);
  ASSERT_EQ(symlink(outside.File("secret.txt").c_str(), origin_.File("link").c_str()), 0);
  const std::string sibling = "/../" + outside.path().substr(outside.path().rfind('/') + 1);
  const std::string escapes[] = {"/out/secret.txt", "/link", sibling + "/secret.txt", "/" + outside.File("secret.txt")};
  const int root = open(origin_.path().c_str(), O_RDONLY | O_DIRECTORY);
  for (const std::string& path : escapes) {  // the fallback refuses them too
    EXPECT_EQ(OpenBeneathByWalk(root, path.substr(1), O_RDONLY), -1) << path;
  }
  close(root);
  Origin* origin = drive_->origin();
  std::string error;
  std::vector<OriginEntry> entries;
  for (const std::string& dir : {std::string("/out"), sibling}) EXPECT_NE(origin->List(dir, &entries, &error), OriginStatus::kOk);
  for (const std::string& path : escapes) {
    OriginFileInfo info;
    EXPECT_NE(origin->Stat(path, &info, &error), OriginStatus::kOk) << path;
    EXPECT_NE(origin->ReadRange(path, 0, 6, "", [](const char*, size_t) { return true; }, &error), OriginStatus::kOk);
    // What a change may touch is the link itself, never its target.
    origin->Upload(path, 1, [](long long, char* buffer, size_t) { return *buffer = 'x', 1LL; }, &error);
    origin->SetModificationTime(path, 1, &error);
    origin->Rename(path, "/taken", &error);
    origin->Remove(path, &error);
  }
  EXPECT_EQ(Tree(false), "taken") << "a link leading out is listed";  // the upload replaced "link", then moved
  EXPECT_EQ(OnOrigin("taken"), "x");
  EXPECT_EQ(FileContents(outside.File("secret.txt")), "secret");
  EXPECT_TRUE(stat(outside.File("secret.txt").c_str(), &after) == 0 && after.st_mtime == before.st_mtime);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside.path()), {}), 1);
}

}  // namespace
