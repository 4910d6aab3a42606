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

// Whether `fd` is still open. Checked before anything else is opened, so that
// a closed descriptor's number cannot have been reused.
bool FdOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A stream idle for eleven seconds closes; every use restarts the count, the
// closers do not; neither closes a stream someone holds, nor does replacing
// it, and the holder's writes are flushed when it goes.
TEST(TimedHandleTest, IdleStreamClosesAfterElevenSecondsUnlessUsedOrHeld) {
  TempDir dir;
  auto open = [&](const char* name) { return std::fopen(dir.File(name).c_str(), "a"); };
  TimedHandle handle(dir.File("c.cache"));
  EXPECT_EQ(handle.GetHandle(), nullptr);
  AdvanceClockForTesting(std::chrono::seconds(11));
  EXPECT_FALSE(handle.CloseIfExpired());
  handle = open("c.cache");
  // The real clock runs on under the offset; 50 ms short stays short.
  AdvanceClockForTesting(std::chrono::milliseconds(10950));
  EXPECT_FALSE(handle.CloseIfExpired());
  // Each use: IsValidHandle, GetHandle, the conversion, Tick, assignment.
  for (const std::function<void()>& use : std::vector<std::function<void()>>{
           [&] { handle.IsValidHandle(); }, [&] { std::shared_ptr<FILE> s = handle.GetHandle(); },
           [&] { std::shared_ptr<FILE> s = handle; }, [&] { handle.Tick(); }, [&] { handle = open("c.cache"); }}) {
    AdvanceClockForTesting(std::chrono::seconds(10));
    use();
    AdvanceClockForTesting(std::chrono::seconds(10));
    EXPECT_FALSE(handle.CloseIfExpired());
  }

  std::shared_ptr<FILE> held = handle.GetHandle();
  const int fd = fileno(held.get());
  AdvanceClockForTesting(std::chrono::seconds(11));
  EXPECT_FALSE(handle.CloseIfExpired());
  handle.Close();
  EXPECT_GE(std::fputs("still mine", held.get()), 0);
  held.reset();
  EXPECT_TRUE(FdOpen(fd));  // letting go closes nothing: the handle still owns it
  EXPECT_TRUE(handle.CloseIfExpired());
  EXPECT_FALSE(FdOpen(fd));
  EXPECT_EQ(FileContents(dir.File("c.cache")), "still mine");

  handle = open("e.cache");
  std::shared_ptr<FILE> replaced = handle.GetHandle();
  handle = open("f.cache");  // a replaced stream stays open for its holder
  EXPECT_GE(std::fputs("kept", replaced.get()), 0);
  replaced.reset();
  EXPECT_EQ(FileContents(dir.File("e.cache")), "kept");
  const int other = fileno(handle.GetHandle().get());
  handle.Close();  // unheld: closed at once, idle or not
  EXPECT_FALSE(FdOpen(other));
  ResetClockForTesting();
}

}  // namespace
