// The cache manager: settings, limits, the object table, the registry, and
// the quota pass, which clears only while the directory is over its limit.
#include "cache/cache_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "cache/default_settings.h"
#include "cache/sector.h"
#include "common/clock.h"
#include "common/platform.h"
#include "support/fake_origin.h"
#include "support/file_helpers.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"
#include "support/test_point_gate.h"
#include "support/test_queue.h"
#include "support/waits.h"

namespace {

using namespace std::chrono_literals;

TEST(CacheManager, SettingsComeFromTheFileThenFromJson) {
  TempDir dir;
  SettingsFile none("");
  const _CACHECONFIG defaults = Cache(dir.path().c_str(), 1ull << 30).GetConfig();
  EXPECT_EQ(std::memcmp(&defaults, &kDefaultCacheConfig, sizeof defaults), 0);
  SettingsFile file("; comment\n[cache]\nra_hit_streak=5\n");
  Cache cache(dir.path().c_str(), 1ull << 30);
  // A readable file without a key gives 0.
  EXPECT_EQ(std::make_tuple(cache.GetConfig().rahit, cache.GetConfig().ramin), std::make_tuple(5u, 0u));
  EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":7},"clear":{"period":"250"}}})"), kOk);
  EXPECT_EQ(cache.SetConfiguration("{not json"), kErrJson);
  const _CACHECONFIG conf = cache.GetConfig();
  EXPECT_EQ(std::make_tuple(conf.rahit, conf.clrperiod, conf.ramin), std::make_tuple(7u, 250u, 0u));
}

// The directory is made component by component (a relative path is taken
// from the root); the limit has a floor, and more than the volume holds is
// cut to part of what it could hold.
TEST(CacheManager, DirectoryAndLimit) {
  SettingsFile none("");
  TempDir dir;
  EXPECT_EQ(Cache((dir.path() + "//a///b").c_str(), 0).path(), dir.path() + "/a/b/");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/a/b"));
  struct stat st;
  EXPECT_TRUE(stat((dir.path() + "/a/b").c_str(), &st) == 0 && (st.st_mode & 0777) == 0700) << "others may look in";
  const std::string relative = "tmp/korv-relative-" + std::to_string(getpid());
  EXPECT_EQ(Cache(relative.c_str(), 0).path(), "/" + relative + "/");
  std::filesystem::remove_all("/" + relative);

  long long free_bytes = 0;
  ASSERT_TRUE(VolumeFreeBytes(dir.path(), &free_bytes));
  ASSERT_GT(free_bytes, 512 * kMiB) << "the test needs some free space";
  constexpr unsigned long long kFloor = 64 * kMiB;
  EXPECT_EQ(Cache(dir.path().c_str(), UINT64_MAX).GetLimit(), kFloor);  // negative when signed: the floor
  Cache cache(dir.path().c_str(), 0);
  const struct { unsigned long long asked; unsigned int status; unsigned long long limit; } cases[] = {
      {100 * kMiB, kOk, 100 * kMiB}, {kFloor - 1, kErrLimitTooSmall, 100 * kMiB}, {kFloor, kOk, kFloor},
      {1ull << 63, kOk, 1ull << 63},  // accepted, and never lowered (negative when signed)
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cache.SetLimit(c.asked), c.status) << c.asked;
    EXPECT_EQ(cache.GetLimit(), c.limit) << c.asked;
  }
  EXPECT_EQ(cache.SetLimit(static_cast<unsigned long long>(free_bytes) * 4), kOk);
  EXPECT_LE(cache.GetLimit(), static_cast<unsigned long long>(free_bytes));
  EXPECT_GT(cache.GetLimit(), static_cast<unsigned long long>(free_bytes) / 4);
}

TEST(CacheManager, ObjectsAreSharedByNameConvertedAndRehashed) {
  SettingsFile none("");
  TempDir dir;
  FakeOrigin origin(4 * kMiB);
  Cache cache(dir.path().c_str(), 1ull << 30);
  auto open = [&](const char* name, char mode) { return cache.Open(name, mode, origin.size(), &origin); };

  auto a = open("x/a.bin", 'r');
  EXPECT_EQ(a->SetMode('x', origin.size(), &origin), kErrInvalidMode);
  // 'w' on a read-only object converts it; 'r' on a writable one keeps it.
  const std::vector<char> mine = Pattern(10, 'm');
  _WRITEDATA wd = WriteRequest(mine, 10, origin.size(), &origin);
  EXPECT_EQ(a->Write(&wd), kErrReadOnly);
  EXPECT_EQ(open("x/a.bin", 'w'), a);
  EXPECT_EQ(open("x/a.bin", 'r'), a);
  EXPECT_EQ(a->Write(&wd), kOk);
  EXPECT_EQ(wd.file_size, kSectorSize);  // the head sector was fetched whole before the write
  EXPECT_EQ(a->SetMode('w', origin.size(), &origin), kOk);  // already writable: the file stays
  std::vector<char> expected = OriginBytes(0, 20);
  std::copy(mine.begin(), mine.end(), expected.begin() + 10);
  EXPECT_TRUE(Served(*a, origin, 0, 20, 0, &expected));
  struct stat st;
  EXPECT_TRUE(stat(dir.File("a.bin").c_str(), &st) == 0 && (st.st_mode & 0777) == 0600) << "others may read it";
  // Close(true) detaches the file; a mode request then makes a new one.
  EXPECT_EQ(a->Close(true), kOk);
  EXPECT_EQ(ReadAndCheck(*a, origin, 10, 1000, 0).status, kErrInvalidArgument);
  EXPECT_EQ(a->Close(true), kErrNotOpen);
  EXPECT_EQ(a->SetMode('r', origin.size(), &origin), kOk);
  EXPECT_EQ(a->Write(&wd), kErrReadOnly);
  EXPECT_TRUE(Served(*a, origin, 10, 1000));
  for (char bad_mode : {'x', '\0'}) EXPECT_EQ(ErrorThrownBy([&] { open("bad.bin", bad_mode); }), kErrInvalidMode);
  for (const char* bad_name : {"", "/"}) EXPECT_EQ(ErrorThrownBy([&] { open(bad_name, 'r'); }), kErrInvalidArgument);

  // Closing drops the table's reference only; Close(false) keeps the file.
  auto b = open("b.bin", 'r');
  EXPECT_EQ(b->Close(false), kOk);
  EXPECT_EQ(cache.Close("b.bin"), kOk);
  EXPECT_TRUE(Served(*b, origin, 100, 4096, -1));
  auto taken = open("b.bin", 'r');
  EXPECT_NE(taken, b);
  // Rehash onto an open name force-closes what was there.
  EXPECT_EQ(cache.Rehash("unknown", "b.bin", "f"), kErrNotOpen);
  auto c = open("c.bin", 'r');
  EXPECT_EQ(cache.Rehash("c.bin", "b.bin", "b-renamed.bin"), kOk);
  EXPECT_EQ(ReadAndCheck(*taken, origin, 0, 10, 0).status, kErrInvalidArgument);
  EXPECT_EQ(open("b.bin", 'r'), c);
  EXPECT_EQ(c->GetHashIndex(), "b.bin");
}

// Sector files an earlier run left behind (their names are fresh UUIDs, so
// nothing would open them again) go when a manager starts; other files stay.
// Closing a file whose fetch hangs waits for that fetch without holding up
// the opening and reading of other files.
TEST(CacheManager, LeftoversGoAndAHungFetchHoldsUpNoOtherFile) {
  SettingsFile none("");
  TempDir dir;
  const std::string left = dir.Write("0b5e0e1a-2fa1-41d2-883f-0016d3cca427.cache", "old");
  const std::string kept = dir.Write("notes.cache", "mine");
  Cache cache(dir.path().c_str(), 1ull << 30);
  EXPECT_FALSE(Exists(left));
  EXPECT_TRUE(Exists(kept));

  Watchdog watchdog("a hung fetch held up the manager", std::chrono::seconds(60));
  FakeOrigin stuck(4 * kMiB), fine(4 * kMiB);
  TestQueue queue(TestQueue::Mode::kRun, 2);
  stuck.Block();
  OnExit release([&] { stuck.Release(); });
  {
    std::shared_ptr<ICacheObj> hung = cache.Open("hung.bin", 'r', stuck.size(), &stuck);
    EXPECT_EQ(ReadAndCheck(*hung, stuck, 0, 4096, 50).status, kErrRead);  // its fetch hangs on a worker
  }
  TestPointGate closing("sector cache: waiting for its fetch tasks");
  Background closer([&] { cache.Close("hung.bin"); });
  ASSERT_TRUE(closing.WaitUntilHeld());
  std::shared_ptr<ICacheObj> other = cache.Open("other.bin", 'r', fine.size(), &fine);
  EXPECT_TRUE(Served(*other, fine, 0, 4096));
  closing.Release();
  stuck.Release();
  EXPECT_TRUE(closer.WaitDone());
}

TEST(CacheManager, RegistryKeysAreExactPathStrings) {
  SettingsFile none("");
  TempDir dir;
  ICache_V2 *first = nullptr, *again = nullptr, *slashed = nullptr, *none_made = nullptr;
  ASSERT_EQ(InitCache(dir.path().c_str(), 100 * kMiB, &first), kOk);
  EXPECT_TRUE(InitCache(dir.path().c_str(), 200 * kMiB, &again) == kOk && again == first);
  EXPECT_EQ(first->GetLimit(), 100u * kMiB);
  EXPECT_TRUE(InitCache((dir.path() + "/").c_str(), 0, &slashed) == kOk && slashed != first);
  for (const std::string& path : {dir.path() + "/", dir.path(), std::string("/never/initialised")}) {
    EXPECT_EQ(ReleaseCache(path.c_str()), kOk) << path;
  }
  dir.Write("file", "x");
  EXPECT_EQ(InitCache((dir.File("file") + "/sub").c_str(), 0, &none_made), kErrCacheDirectory);
  EXPECT_EQ(InitCache(nullptr, 0, &none_made), kErrInvalidArgument);
}

// Passes run only when the test calls RunQuotaPassNow. Sectors are old after
// a million seconds, or at once while the directory is over its limit, and
// only until a cleared file brings it back within; then after a second.
TEST(QuotaManagerTest, ClearsOldSectorsOnlyWhileOverTheLimit) {
  SettingsFile none("");
  TempDir dir;
  Cache_UnbindAsyncQ();
  OnExit reset_clock([] { ResetClockForTesting(); });
  Cache cache(dir.path().c_str(), 64 * kMiB);
  ASSERT_EQ(cache.SetConfiguration(R"({"cache":{"clear":{"period":4000000000,"usedblock":1000000,)"
                                   R"("unusedblock":1000000,"over":{"usedblock":0,"unusedblock":0}}}})"),
            kOk);
  FakeOrigin origin(4 * kMiB);
  auto a = cache.Open("a.bin", 'r', origin.size(), &origin), b = cache.Open("b.bin", 'r', origin.size(), &origin);
  ASSERT_TRUE(Served(*a, origin, 0, 1000, -1) && Served(*b, origin, 0, 1000, -1));
  const long long cached = BytesInDirectory(dir.path());
  AdvanceClockForTesting(5s);
  cache.RunQuotaPassNow();
  EXPECT_EQ(BytesInDirectory(dir.path()), cached) << "cleared under the limit";
  // A ballast fills the directory to exactly its limit, which is not over
  // it; one block more is.
  const std::string ballast = dir.File("ballast");
  ASSERT_TRUE(WriteBallast(ballast, static_cast<long long>(cache.GetLimit()) - cached));
  cache.RunQuotaPassNow();
  EXPECT_EQ(SectorCacheFiles(dir.path()).size(), 2u) << "cleared at the limit";
  ASSERT_TRUE(WriteBallast(ballast, static_cast<long long>(cache.GetLimit()) - cached + 4096));
  cache.RunQuotaPassNow();
  EXPECT_EQ(SectorCacheFiles(dir.path()).size(), 1u) << "the first file cleared brings it within the limit";
  ASSERT_EQ(unlink(ballast.c_str()), 0);
  ASSERT_EQ(cache.SetConfiguration(R"({"cache":{"clear":{"usedblock":1,"unusedblock":1}}})"), kOk);
  cache.RunQuotaPassNow();
  EXPECT_TRUE(SectorCacheFiles(dir.path()).empty());
}

// The bytes stored are counted as they come and go. Off, as by default, a
// directory over its limit loses nothing younger than the eviction ages;
// with the hard limit on, the store that crosses the limit starts a pass at
// once, which drops the least recently read sectors across files until the
// directory is under its limit again.
TEST(QuotaManagerTest, UsedBytesAreCountedAndAHardLimitDropsTheLeastRecentlyRead) {
  SettingsFile none("");
  TempDir dir;
  Cache_UnbindAsyncQ();
  Cache cache(dir.path().c_str(), 64 * kMiB);
  ASSERT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":1000}}})"), kOk);
  FakeOrigin origin(48 * kMiB);
  auto a = cache.Open("a.bin", 'r', origin.size(), &origin), b = cache.Open("b.bin", 'r', origin.size(), &origin);
  auto c = cache.Open("c.bin", 'r', origin.size(), &origin), w = cache.Open("w.txt", 'w', 0, nullptr);
  const std::vector<char> own = Pattern(1000, 'w');
  _WRITEDATA write = WriteRequest(own, 0, 1000, nullptr);
  ASSERT_EQ(w->Write(&write), kOk);
  ASSERT_TRUE(Served(*a, origin, 0, 32 * kMiB, -1) && Served(*b, origin, 0, 36 * kMiB, -1));
  EXPECT_EQ(cache.GetUsedBytes(), static_cast<unsigned long long>(BytesInDirectory(dir.path())));
  cache.RunQuotaPassNow();
  EXPECT_EQ(BytesInDirectory(dir.path()), 68 * kMiB + 4096) << "dropped before its age without the hard limit";

  ASSERT_EQ(cache.SetConfiguration(R"({"cache":{"clear":{"hard":1}}})"), kOk);
  ASSERT_TRUE(Served(*a, origin, 0, kMiB, -1));  // cached: read again, stores nothing
  {
    TestPointGate started("quota: holding the limit");
    ASSERT_TRUE(Served(*c, origin, 0, kMiB, -1));
    ASSERT_TRUE(started.WaitUntilHeld()) << "no pass started when the limit was crossed";
  }
  TestPointGate done("quota: pass done");
  ASSERT_TRUE(done.WaitUntilHeld());
  EXPECT_LE(BytesInDirectory(dir.path()), 64 * kMiB);
  EXPECT_GE(BytesInDirectory(dir.path()), 40 * kMiB) << "dropped far more than the limit needed";
  EXPECT_EQ(cache.GetUsedBytes(), static_cast<unsigned long long>(BytesInDirectory(dir.path())));
  origin.ClearRequests();
  EXPECT_TRUE(Served(*a, origin, 0, kMiB, -1) && Served(*b, origin, 0, 36 * kMiB, -1) &&
              Served(*c, origin, 0, kMiB, -1));
  EXPECT_TRUE(origin.Requests().empty()) << "the most recently read sectors were dropped";
  for (const char* name : {"a.bin", "b.bin", "c.bin"}) cache.Close(name);
  a.reset(), b.reset(), c.reset();
  EXPECT_EQ(cache.GetUsedBytes(), 4096u);
  cache.Close("w.txt");
  w.reset();
  EXPECT_EQ(cache.GetUsedBytes(), 0u);
}

}  // namespace
