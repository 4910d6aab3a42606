#include "common/process.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "common/platform.h"
#include "support/temp_dir.h"

TEST(PlatformTest, ExecutablePathUUIDsAndFreeSpace) {
  std::string path;
  ASSERT_TRUE(ExecutablePath(&path));
  struct stat by_path, by_proc;
  ASSERT_EQ(0, stat(path.c_str(), &by_path));
  ASSERT_EQ(0, stat("/proc/self/exe", &by_proc));
  EXPECT_EQ(by_proc.st_ino, by_path.st_ino);
  EXPECT_EQ(path.substr(0, path.rfind('/')), GetCurrentPath());
  EXPECT_FALSE(IsFinderSync());

  const std::regex version4("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(std::regex_match(*seen.insert(NewUUID()).first, version4));
  EXPECT_EQ(1000u, seen.size());

  TempDir dir;
  long long free_bytes = 12345;
  EXPECT_FALSE(VolumeFreeBytes(dir.File("no/such/dir"), &free_bytes));
  EXPECT_EQ(12345, free_bytes);
  ASSERT_TRUE(VolumeFreeBytes(dir.path(), &free_bytes));
  struct statvfs info;
  ASSERT_EQ(0, statvfs(dir.path().c_str(), &info));
  // Slack for concurrent writers; the superuser's reserve (5% on ext4) is far
  // larger, so counting f_bavail instead would show.
  EXPECT_NEAR(static_cast<double>(info.f_frsize) * info.f_bfree, free_bytes, 64.0 * 1024 * 1024);
}

TEST(ProcessTest, ChronoCountsWholeMillisecondsOnTheSteadyClock) {
  Chrono chrono;
  AdvanceClockForTesting(std::chrono::microseconds(5999900));
  EXPECT_GE(chrono.elapsed(), 5999);
  EXPECT_LT(chrono.elapsed(), 7000);
  const long long before = SteadyNow().time_since_epoch().count(), start = chrono.reset();
  EXPECT_LE(before, start);
  EXPECT_GE(SteadyNow().time_since_epoch().count(), start);
  EXPECT_LT(chrono.elapsed(), 1000);
  ResetClockForTesting();
}

TEST(ProcessTest, OctalToDecimalAndPexec) {
  // 9 passes as a digit; the sign is kept.
  for (auto c : std::vector<std::pair<int, int>>{{0, 0}, {755, 493}, {1000000000, 134217728}, {19, 17}, {-17, -15}})
    EXPECT_EQ(c.second, octalToDecimal(c.first)) << c.first;
  const std::string a(300, 'a'), b(127, 'b');
  for (auto c : std::vector<std::pair<std::string, std::string>>{
           {"true", ""},
           {"echo out; echo err-not-captured >&2", "out\n"},
           {"printf '%s\\n%s\\n%s' " + a + " " + b + " " + a, a + "\n" + b + "\n" + a},  // across buffer refills
       })
    EXPECT_EQ(c.second, pexec(c.first)) << c.first;
  EXPECT_EQ(1000000u, pexec("head -c 1000000 /dev/zero | tr '\\0' z").size());

  struct rlimit saved, none;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
  none = saved;
  none.rlim_cur = 0;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  // The limit goes back before anything else: the sanitizers' runtime needs
  // descriptors to check the exception object.
  std::string message;
  try {
    pexec("echo never");
    setrlimit(RLIMIT_NOFILE, &saved);
  } catch (const std::runtime_error& e) {
    setrlimit(RLIMIT_NOFILE, &saved);
    message = e.what();
  }
  EXPECT_EQ("popen() failed!", message);
}

TEST(ProcessTest, ProcessesAndPaths) {
  EXPECT_TRUE(IsRunningPID(getpid()));
  EXPECT_FALSE(IsRunningPID(0x7ffffff0));                // beyond any pid_max
  EXPECT_FALSE(IsRunningPID((1LL << 32) + getpid()));  // not truncated to ours
  UserAccount account;
  if (CurrentUserAccount(&account)) {
    EXPECT_EQ(account.name + "\n", pexec("id -un"));
  }
  EXPECT_EQ("/Volumes/Drive_" + GetUserName(), GetOSXMountPath("Drive"));
  EXPECT_FALSE(GetHomePath().empty());
  EXPECT_EQ(GetHomePath() + "/Library/Application Support", GetAppDataPath("unused"));

  const std::string resources = GetCurrentPath() + "/../Resources";
  struct stat info;
  const bool created = stat(resources.c_str(), &info) != 0;
  if (created) {
    EXPECT_EQ(resources + "/", GetResourcePath());  // kept unresolved
    ASSERT_EQ(0, mkdir(resources.c_str(), 0755));
  }
  char* parent = realpath((GetCurrentPath() + "/..").c_str(), nullptr);
  ASSERT_NE(nullptr, parent);
  EXPECT_EQ(std::string(parent) + "/Resources/", GetResourcePath());
  free(parent);
  if (created) rmdir(resources.c_str());
}
