// The idle-closing stream handle: when it closes, when it must not, and what
// becomes of streams that callers still hold.
#include "cache/timed_handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <vector>

#include "common/clock.h"
#include "support/file_helpers.h"
#include "support/temp_dir.h"

namespace {

constexpr std::chrono::seconds kIdle{11};

class TimedHandleTest : public ::testing::Test {
 protected:
  void TearDown() override { ResetClockForTesting(); }
  FILE* Open(const std::string& name, const char* mode = "w") {
    FILE* stream = std::fopen(dir_.File(name).c_str(), mode);
    if (stream == nullptr) ADD_FAILURE() << "cannot open " << name;
    return stream;
  }
  TempDir dir_;
};

// Whether `fd` is still open. Checked before anything else is opened, so that
// a closed descriptor's number cannot have been reused.
bool FdOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A stream idle for eleven seconds closes; every use restarts the count, the
// closers do not; neither closes a stream someone holds, nor does replacing
// it, and the holder's writes are flushed when it goes.
TEST_F(TimedHandleTest, IdleStreamClosesAfterElevenSecondsUnlessUsedOrHeld) {
  const std::string path = dir_.File("c.cache");
  TimedHandle handle(path);
  EXPECT_EQ(handle.GetHandle(), nullptr);
  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());
  handle = Open("c.cache");
  // The real clock runs on under the offset; 50 ms short stays short.
  AdvanceClockForTesting(kIdle - std::chrono::milliseconds(50));
  EXPECT_FALSE(handle.CloseIfExpired());
  const std::vector<std::pair<const char*, std::function<void()>>> uses = {
      {"IsValidHandle", [&] { handle.IsValidHandle(); }},
      {"GetHandle", [&] { std::shared_ptr<FILE> s = handle.GetHandle(); }},
      {"conversion", [&] { std::shared_ptr<FILE> s = handle; }},
      {"Tick", [&] { handle.Tick(); }},
      {"assignment", [&] { handle = Open("c.cache", "a"); }},
  };
  for (const auto& use : uses) {
    SCOPED_TRACE(use.first);
    AdvanceClockForTesting(std::chrono::seconds(10));
    use.second();
    AdvanceClockForTesting(std::chrono::seconds(10));
    EXPECT_FALSE(handle.CloseIfExpired());
  }

  std::shared_ptr<FILE> held = handle.GetHandle();
  const int fd = fileno(held.get());
  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());
  handle.Close();
  EXPECT_GE(std::fputs("still mine", held.get()), 0);
  held.reset();
  EXPECT_TRUE(FdOpen(fd));  // letting go closes nothing: the handle still owns it
  EXPECT_TRUE(handle.CloseIfExpired());
  EXPECT_FALSE(FdOpen(fd));
  EXPECT_EQ(FileContents(path), "still mine");

  handle = Open("e.cache");
  std::shared_ptr<FILE> replaced = handle.GetHandle();
  handle = Open("f.cache");  // a replaced stream stays open for its holder
  EXPECT_GE(std::fputs("kept", replaced.get()), 0);
  replaced.reset();
  EXPECT_EQ(FileContents(dir_.File("e.cache")), "kept");
  const int other = fileno(handle.GetHandle().get());
  handle.Close();  // unheld: closed at once, idle or not
  EXPECT_FALSE(FdOpen(other));
}

}  // namespace
