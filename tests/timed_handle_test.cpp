// The idle-closing stream handle: when it closes, when it must not, and what
// becomes of streams that callers still hold.
#include "cache/timed_handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/clock.h"
#include "support/file_helpers.h"
#include "support/temp_dir.h"

namespace {

using std::chrono::seconds;
constexpr seconds kIdle{11};

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

TEST_F(TimedHandleTest, UsesPushTheElevenSecondDeadlineAndClosersDoNot) {
  TimedHandle handle(Open("c.cache"));
  // The real clock runs on under the offset; 50 ms short stays short.
  constexpr std::chrono::milliseconds kShort{50};
  AdvanceClockForTesting(kIdle - kShort);
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
    AdvanceClockForTesting(seconds(10));
    use.second();
    AdvanceClockForTesting(seconds(10));
    EXPECT_FALSE(handle.CloseIfExpired());
    EXPECT_TRUE(handle.IsValidHandle());
  }

  std::shared_ptr<FILE> held = handle.GetHandle();
  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());  // referenced
  handle.Close();                         // referenced
  held.reset();
  EXPECT_TRUE(handle.CloseIfExpired());  // neither closer counted as a use
}

TEST_F(TimedHandleTest, ClosedUntilInstalledAndAHeldStreamOutlivesBothClosers) {
  const std::string path = dir_.File("d.cache");
  TimedHandle handle(path);
  EXPECT_EQ(handle.GetHandle(), nullptr);
  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());

  handle = Open("d.cache");
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
  EXPECT_EQ(FileContents(path), "still mine");  // flushed
  EXPECT_FALSE(handle.IsValidHandle());

  handle = Open("e.cache");
  const int other = fileno(handle.GetHandle().get());
  handle.Close();  // unheld: closed at once, idle or not
  EXPECT_FALSE(FdOpen(other));
}

TEST_F(TimedHandleTest, ReplacedOrOrphanedStreamClosesWithItsLastReference) {
  std::shared_ptr<FILE> old, survivor;
  int fd_one, fd_two, fd_three;
  {
    TimedHandle handle(Open("one"));
    fd_one = fileno(handle.GetHandle().get());
    handle = Open("two");
    EXPECT_FALSE(FdOpen(fd_one));  // unheld: closed at once
    old = handle.GetHandle();
    fd_two = fileno(old.get());
    FILE* third = Open("three");
    fd_three = fileno(third);
    handle = third;
    EXPECT_GE(std::fputs("two", old.get()), 0);  // the replaced stream works for its holder
    old.reset();
    EXPECT_FALSE(FdOpen(fd_two));
    EXPECT_EQ(FileContents(dir_.File("two")), "two");
    survivor = handle.GetHandle();
  }
  EXPECT_TRUE(FdOpen(fd_three));  // a holder may outlive the handle itself
  EXPECT_GE(std::fputs("three", survivor.get()), 0);
  survivor.reset();
  EXPECT_FALSE(FdOpen(fd_three));
  EXPECT_EQ(FileContents(dir_.File("three")), "three");
  EXPECT_FALSE(CloseHandle(nullptr));
}

TEST_F(TimedHandleTest, ConcurrentUseAndClosingLoseNoWrites) {
  const std::string path = dir_.File("f.cache");
  TimedHandle handle(path);
  constexpr int kUsers = 3;
  std::atomic<bool> closer_started{false};
  std::atomic<int> users_left{kUsers}, written{0};
  // The owner's pattern: reopen when closed, write through a reference, let go.
  auto user = [&] {
    while (!closer_started) std::this_thread::yield();
    for (int i = 0; i < 2000; ++i) {
      if (!handle.IsValidHandle()) handle = std::fopen(path.c_str(), "a");
      std::shared_ptr<FILE> s = handle.GetHandle();
      if (s != nullptr && std::fputc('x', s.get()) != EOF) written.fetch_add(1);
      s.reset();
      handle.Tick();
      std::this_thread::yield();
    }
    users_left.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    closer_started = true;
    for (int i = 0; users_left > 0; ++i) {
      AdvanceClockForTesting(kIdle);
      handle.CloseIfExpired();
      if (i % 8 == 0) handle.Close();
      std::this_thread::yield();
    }
  });
  for (int t = 0; t < kUsers; ++t) threads.emplace_back(user);
  for (auto& t : threads) t.join();
  handle.Close();
  EXPECT_FALSE(handle.IsValidHandle());
  EXPECT_GT(written.load(), 0);
  // Every stream, replaced or closed, was flushed by its last holder.
  EXPECT_EQ(FileContents(path).size(), static_cast<size_t>(written.load()));
}

}  // namespace
