#include "common/process.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "common/clock.h"
#include "common/platform.h"

TEST(PlatformTest, PathsUUIDsFreeSpaceStopwatchCommandsAndProcesses) {
  std::string path;
  ASSERT_TRUE(ExecutablePath(&path));
  EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(path.substr(0, path.rfind('/')), GetCurrentPath());
  const std::string resources = std::filesystem::weakly_canonical(GetCurrentPath() + "/..").string() + "/Resources";
  const bool created = mkdir(resources.c_str(), 0755) == 0;
  EXPECT_EQ(resources + "/", GetResourcePath());
  if (created) rmdir(resources.c_str());

  const std::regex version4("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(std::regex_match(*seen.insert(NewUUID()).first, version4));
  EXPECT_EQ(1000u, seen.size());

  long long free_bytes = 12345;
  EXPECT_FALSE(VolumeFreeBytes(resources + "/no/such/dir", &free_bytes));
  ASSERT_TRUE(VolumeFreeBytes(GetCurrentPath(), &free_bytes));
  // Slack for concurrent writers; the superuser's reserve (5% on ext4) is far
  // larger, so counting f_bavail instead would show.
  EXPECT_NEAR(static_cast<double>(std::filesystem::space(GetCurrentPath()).free), free_bytes, 64.0 * 1024 * 1024);

  Chrono chrono;
  AdvanceClockForTesting(std::chrono::microseconds(5999900));
  EXPECT_GE(chrono.elapsed(), 5999);  // whole milliseconds
  EXPECT_LT(chrono.elapsed(), 7000);
  chrono.reset();
  EXPECT_LT(chrono.elapsed(), 1000);
  ResetClockForTesting();

  // 9 passes as a digit; the sign is kept.
  const int octal[][2] = {{0, 0}, {755, 493}, {1000000000, 134217728}, {19, 17}, {-17, -15}};
  for (const auto& c : octal) EXPECT_EQ(c[1], octalToDecimal(c[0])) << c[0];
  // Past the first buffer, and only the standard output.
  EXPECT_EQ("out\n" + std::string(5000, 'a'), pexec("echo out; echo err >&2; printf " + std::string(5000, 'a')));

  EXPECT_TRUE(IsRunningPID(getpid()));
  EXPECT_FALSE(IsRunningPID(0x7ffffff0));                // beyond any pid_max
  EXPECT_FALSE(IsRunningPID((1LL << 32) + getpid()));  // not truncated to ours
  EXPECT_TRUE(GetUserName().empty() || GetUserName() + "\n" == pexec("id -un")) << GetUserName();
  EXPECT_EQ("/Volumes/Drive_" + GetUserName(), GetOSXMountPath("Drive"));
  EXPECT_EQ(GetHomePath() + "/Library/Application Support", GetAppDataPath("unused"));
}
