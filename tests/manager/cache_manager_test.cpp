// The cache manager: settings, limits, the object table and the registry.
#include "cache/cache_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "cache/default_settings.h"
#include "common/platform.h"
#include "support/fake_origin.h"
#include "support/requests.h"
#include "support/settings_file.h"
#include "support/temp_dir.h"

namespace {

TEST(CacheManager, SettingsComeFromTheFileThenFromJson) {
  TempDir dir;
  {
    SettingsFile none("");
    const _CACHECONFIG conf = Cache(dir.path().c_str(), 1ull << 30).GetConfig();
    EXPECT_EQ(std::memcmp(&conf, &kDefaultCacheConfig, sizeof conf), 0);
  }
  SettingsFile file("; comment\n[cache]\nra_hit_streak=5\n");
  Cache cache(dir.path().c_str(), 1ull << 30);
  EXPECT_EQ(cache.GetConfig().rahit, 5u);
  EXPECT_EQ(cache.GetConfig().ramin, 0u);  // a readable file without the key gives 0
  EXPECT_EQ(cache.GetConfig().clroverunused, 0u);

  EXPECT_EQ(cache.SetConfiguration(R"({"cache":{"ra":{"hit":7},"clear":{"period":"250"}}})"), kOk);
  EXPECT_EQ(cache.SetConfiguration(nullptr), kErrInvalidArgument);
  EXPECT_EQ(cache.SetConfiguration("{not json"), kErrJson);
  const _CACHECONFIG conf = cache.GetConfig();
  EXPECT_EQ(conf.rahit, 7u);
  EXPECT_EQ(conf.clrperiod, 250u);
  EXPECT_EQ(conf.ramin, 0u);
}

TEST(CacheManager, DirectoryIsCreatedComponentByComponent) {
  SettingsFile none("");
  TempDir dir;
  EXPECT_EQ(Cache((dir.path() + "//a///b").c_str(), 0).path(), dir.path() + "/a/b/");
  struct stat st;
  EXPECT_TRUE(stat((dir.path() + "/a/b").c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  dir.Write("file", "x");
  for (const std::string& bad : {dir.File("file"), dir.File("file") + "/sub"}) {
    EXPECT_EQ(ErrorThrownBy([&] { Cache cache(bad.c_str(), 0); }), kErrCacheDirectory) << bad;
  }
  // A relative path is taken from the root.
  const std::string relative = "tmp/korv-relative-" + std::to_string(getpid());
  EXPECT_EQ(Cache(relative.c_str(), 0).path(), "/" + relative + "/");
  std::filesystem::remove_all("/" + relative);
}

TEST(CacheManager, LimitHasAFloorAndFitsTheVolume) {
  SettingsFile none("");
  TempDir dir;
  long long free_bytes = 0;
  ASSERT_TRUE(VolumeFreeBytes(dir.path(), &free_bytes));
  ASSERT_GT(free_bytes, 512 * kMiB) << "the test needs some free space";
  constexpr unsigned long long kFloor = 64 * kMiB;
  EXPECT_EQ(Cache(dir.path().c_str(), UINT64_MAX).GetLimit(), kFloor);  // negative when signed: the floor
  Cache cache(dir.path().c_str(), 0);
  EXPECT_EQ(cache.GetLimit(), kFloor);

  const struct {
    unsigned long long asked;
    unsigned int status;
    unsigned long long limit;
  } cases[] = {
      {100 * kMiB, kOk, 100 * kMiB}, {kFloor - 1, kErrLimitTooSmall, 100 * kMiB}, {kFloor, kOk, kFloor},
      // 2^63 and more: accepted, and never lowered (negative when signed).
      {1ull << 63, kOk, 1ull << 63},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cache.SetLimit(c.asked), c.status) << c.asked;
    EXPECT_EQ(cache.GetLimit(), c.limit) << c.asked;
  }
  // More than the volume holds: half of what it could hold.
  EXPECT_EQ(cache.SetLimit(static_cast<unsigned long long>(free_bytes) * 4), kOk);
  EXPECT_LE(cache.GetLimit(), static_cast<unsigned long long>(free_bytes));
  EXPECT_GT(cache.GetLimit(), static_cast<unsigned long long>(free_bytes) / 4);
  EXPECT_EQ(cache.GetQuota(), cache.GetLimit());
}

TEST(CacheManager, ObjectsAreSharedByNameConvertedAndRehashed) {
  SettingsFile none("");
  TempDir dir;
  FakeOrigin origin(4 * kMiB);
  Cache cache(dir.path().c_str(), 1ull << 30);
  auto open = [&](const char* name, char mode) { return cache.Open(name, mode, origin.size(), &origin); };

  auto a = open("x/a.bin", 'r');
  EXPECT_EQ(open("x/a.bin", 'r'), a);
  EXPECT_EQ(a->GetHashIndex(), "x/a.bin");
  // 'w' on a read-only object converts it; 'r' on a writable one keeps it.
  const std::vector<char> mine = Pattern(10, 'm');
  _WRITEDATA wd = WriteRequest(mine, 0, origin.size(), &origin);
  EXPECT_EQ(a->Write(&wd), kErrReadOnly);
  EXPECT_EQ(open("x/a.bin", 'w'), a);
  EXPECT_EQ(open("x/a.bin", 'r'), a);
  EXPECT_EQ(a->Write(&wd), kOk);

  for (char bad_mode : {'x', '\0'}) EXPECT_EQ(ErrorThrownBy([&] { open("bad.bin", bad_mode); }), kErrInvalidMode);
  for (const char* bad_name : {"", "/"}) EXPECT_EQ(ErrorThrownBy([&] { open(bad_name, 'r'); }), kErrInvalidArgument);

  // Closing drops the table's reference only.
  auto b = open("b.bin", 'r');
  EXPECT_EQ(cache.Close("b.bin"), kOk);
  EXPECT_EQ(cache.Close("never-opened"), kOk);
  EXPECT_TRUE(Served(*b, origin, 100, 4096, -1));
  EXPECT_NE(open("b.bin", 'r'), b);

  EXPECT_EQ(cache.Rehash("unknown", "b.bin", "f"), kErrNotOpen);
  // Rehash onto an open name force-closes what was there.
  auto c = open("c.bin", 'r');
  EXPECT_EQ(cache.Rehash("c.bin", "b.bin", "b-renamed.bin"), kOk);
  EXPECT_EQ(open("b.bin", 'r'), c);
  EXPECT_EQ(c->GetHashIndex(), "b.bin");
}

TEST(CacheManager, RegistryKeysAreExactPathStrings) {
  SettingsFile none("");
  TempDir dir;
  ICache_V2* first = nullptr;
  ICache_V2* again = nullptr;
  ICache_V2* slashed = nullptr;
  ASSERT_EQ(InitCache(dir.path().c_str(), 100 * kMiB, &first), kOk);
  ASSERT_EQ(InitCache(dir.path().c_str(), 200 * kMiB, &again), kOk);
  EXPECT_EQ(first, again);
  EXPECT_EQ(first->GetLimit(), 100u * kMiB);
  ASSERT_EQ(InitCache((dir.path() + "/").c_str(), 0, &slashed), kOk);
  EXPECT_NE(first, slashed);
  for (const std::string& path : {dir.path() + "/", dir.path(), std::string("/never/initialised")}) {
    EXPECT_EQ(ReleaseCache(path.c_str()), kOk) << path;
  }
  dir.Write("file", "x");
  ICache_V2* none_made = nullptr;
  EXPECT_EQ(InitCache((dir.File("file") + "/sub").c_str(), 0, &none_made), kErrCacheDirectory);
  EXPECT_EQ(none_made, nullptr);
  EXPECT_EQ(InitCache(nullptr, 0, &none_made), kErrInvalidArgument);
}

}  // namespace
