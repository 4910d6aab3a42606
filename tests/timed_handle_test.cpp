// The idle-closing stream handle: when it closes, when it must not, and what
// becomes of streams that callers still hold.
#include "cache/timed_handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "support/recording_log.h"
#include "support/temp_dir.h"

namespace {

using std::chrono::seconds;
using LogLines = std::vector<std::pair<LOGLEVEL, std::string>>;

constexpr seconds kIdle{11};

class TimedHandleTest : public ::testing::Test {
 protected:
  void TearDown() override { ResetClockForTesting(); }
};

std::string Line(const std::string& path, const std::string& text) {
  return "[CACHE     ] [" + path + "] " + text;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Whether `fd` is still an open descriptor. Checked before anything else is
// opened, so that a closed descriptor's number cannot have been reused.
bool FdOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

FILE* OpenOrDie(const std::string& path, const char* mode) {
  FILE* stream = std::fopen(path.c_str(), mode);
  if (stream == nullptr) ADD_FAILURE() << "cannot open " << path;
  return stream;
}

TEST_F(TimedHandleTest, MadeFromPathStaysClosedUntilAStreamIsInstalled) {
  TempDir dir;
  RecordingLog log;
  const std::string path = dir.File("a.cache");
  TimedHandle handle(path);

  EXPECT_FALSE(handle.IsValidHandle());
  std::shared_ptr<FILE> empty = handle.GetHandle();
  EXPECT_EQ(empty, nullptr);
  // Even closed, the reference carries the closing deleter.
  auto* deleter = std::get_deleter<bool (*)(FILE*)>(empty);
  ASSERT_NE(deleter, nullptr);
  EXPECT_EQ(*deleter, &CloseHandle);
  empty.reset();

  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());
  EXPECT_TRUE(log.Lines().empty());

  // A forced close of a closed handle reports a close and changes nothing.
  handle.Close();
  EXPECT_EQ(log.Lines(), (LogLines{{LOGLEVEL_DEBUG, Line(path, "Cache handle closed : force close")}}));
  EXPECT_FALSE(handle.IsValidHandle());
  log.Clear();

  FILE* stream = OpenOrDie(path, "w+");
  ASSERT_NE(stream, nullptr);
  const int fd = fileno(stream);
  handle = stream;
  EXPECT_TRUE(handle.IsValidHandle());
  {
    std::shared_ptr<FILE> held = handle.GetHandle();
    EXPECT_EQ(held.get(), stream);
    std::fputs("hello", held.get());
  }

  AdvanceClockForTesting(kIdle);
  EXPECT_TRUE(handle.CloseIfExpired());
  EXPECT_FALSE(FdOpen(fd));
  EXPECT_EQ(ReadFile(path), "hello");
  EXPECT_EQ(log.Lines(), (LogLines{{LOGLEVEL_DEBUG, Line(path, "Cache handle closed")}}));
  EXPECT_FALSE(handle.IsValidHandle());

  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());
  EXPECT_EQ(log.Lines().size(), 1u);
}

TEST_F(TimedHandleTest, ElevenSecondsOfIdlenessExpireAndLessDoesNot) {
  TempDir dir;
  RecordingLog log;
  const std::string path = dir.File("b.cache");
  TimedHandle handle(OpenOrDie(path, "w"));

  // The real clock runs on under the test's offset, so "just short" can only
  // be asserted when the test itself took less than the shortfall; retry
  // otherwise.
  constexpr std::chrono::milliseconds kShort{1};
  bool checked = false;
  for (int attempt = 0; attempt < 100 && !checked; ++attempt) {
    ResetClockForTesting();
    const auto start = std::chrono::steady_clock::now();
    handle.Tick();
    AdvanceClockForTesting(kIdle - kShort);
    const bool closed = handle.CloseIfExpired();
    if (std::chrono::steady_clock::now() - start < kShort) {
      EXPECT_FALSE(closed);
      checked = true;
    } else if (closed) {
      handle = OpenOrDie(path, "w");
    }
  }
  EXPECT_TRUE(checked) << "never fast enough to check the time-out's edge";
  EXPECT_TRUE(log.Lines().empty());

  ResetClockForTesting();
  handle.Tick();
  AdvanceClockForTesting(kIdle);
  EXPECT_TRUE(handle.CloseIfExpired());
  // A handle made from a stream has an empty tag.
  EXPECT_EQ(log.Lines(), (LogLines{{LOGLEVEL_DEBUG, Line("", "Cache handle closed")}}));
}

TEST_F(TimedHandleTest, UsesPushTheDeadlineAndClosersDoNot) {
  TempDir dir;
  const std::string path = dir.File("c.cache");
  TimedHandle handle(OpenOrDie(path, "w"));

  const std::vector<std::pair<const char*, std::function<void()>>> uses = {
      {"IsValidHandle", [&] { handle.IsValidHandle(); }},
      {"GetHandle", [&] { std::shared_ptr<FILE> s = handle.GetHandle(); }},
      {"conversion", [&] { std::shared_ptr<FILE> s = handle; }},
      {"Tick", [&] { handle.Tick(); }},
      {"assignment", [&] { handle = OpenOrDie(path, "a"); }},
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
  AdvanceClockForTesting(seconds(6));
  EXPECT_FALSE(handle.CloseIfExpired());  // too fresh
  AdvanceClockForTesting(seconds(5));
  EXPECT_FALSE(handle.CloseIfExpired());  // referenced
  handle.Close();                         // referenced
  held.reset();
  // 11 s after the last use, whatever the closers did in between.
  EXPECT_TRUE(handle.CloseIfExpired());
}

TEST_F(TimedHandleTest, HeldReferenceBlocksBothClosersUntilAnotherCloseAfterItsRelease) {
  TempDir dir;
  RecordingLog log;
  const std::string path = dir.File("d.cache");
  TimedHandle handle(path);
  handle = OpenOrDie(path, "w");

  std::shared_ptr<FILE> held = handle.GetHandle();
  ASSERT_NE(held, nullptr);
  const int fd = fileno(held.get());
  AdvanceClockForTesting(kIdle);
  EXPECT_FALSE(handle.CloseIfExpired());
  handle.Close();
  EXPECT_EQ(log.Lines(),
            (LogLines{
                {LOGLEVEL_DEBUG, Line(path, "Trying to close cache handle but there are references")},
                {LOGLEVEL_DEBUG,
                 Line(path, "Trying to close cache handle but there are references : force close")},
            }));
  EXPECT_TRUE(handle.IsValidHandle());
  EXPECT_EQ(handle.GetHandle(), held);

  EXPECT_GE(std::fputs("still mine", held.get()), 0);
  held.reset();
  // Letting go closes nothing by itself: the handle still owns the stream.
  EXPECT_TRUE(FdOpen(fd));
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_TRUE(handle.IsValidHandle());

  log.Clear();
  handle.Close();
  EXPECT_FALSE(FdOpen(fd));
  EXPECT_EQ(ReadFile(path), "still mine");
  EXPECT_EQ(log.Lines(), (LogLines{{LOGLEVEL_DEBUG, Line(path, "Cache handle closed : force close")}}));
  EXPECT_FALSE(handle.IsValidHandle());
}

TEST_F(TimedHandleTest, ReplacedOrOrphanedStreamClosesWithItsLastReference) {
  TempDir dir;
  const std::string one = dir.File("one"), two = dir.File("two"), three = dir.File("three"),
                    four = dir.File("four");
  int fd_two = -1, fd_three = -1;
  {
    TimedHandle handle(dir.File("e.cache"));
    handle = OpenOrDie(one, "w");
    int fd_one;
    {
      std::shared_ptr<FILE> s = handle.GetHandle();
      fd_one = fileno(s.get());
      std::fputs("one", s.get());
    }
    handle = OpenOrDie(two, "w");
    EXPECT_FALSE(FdOpen(fd_one));
    EXPECT_EQ(ReadFile(one), "one");

    std::shared_ptr<FILE> old = handle.GetHandle();
    fd_two = fileno(old.get());
    FILE* third = OpenOrDie(three, "w");
    fd_three = fileno(third);
    handle = third;
    EXPECT_EQ(handle.GetHandle().get(), third);
    // The replaced stream keeps working for its holder.
    EXPECT_GE(std::fputs("two", old.get()), 0);
    EXPECT_TRUE(FdOpen(fd_two));
    old.reset();
    EXPECT_FALSE(FdOpen(fd_two));
    EXPECT_EQ(ReadFile(two), "two");
  }
  EXPECT_FALSE(FdOpen(fd_three));

  // A holder may outlive the handle itself.
  std::shared_ptr<FILE> survivor;
  {
    TimedHandle handle(OpenOrDie(four, "w"));
    survivor = handle.GetHandle();
  }
  const int fd_four = fileno(survivor.get());
  EXPECT_GE(std::fputs("four", survivor.get()), 0);
  survivor.reset();
  EXPECT_FALSE(FdOpen(fd_four));
  EXPECT_EQ(ReadFile(four), "four");

  EXPECT_FALSE(CloseHandle(nullptr));
}

TEST_F(TimedHandleTest, ConcurrentUseAndClosingLoseNoWrites) {
  TempDir dir;
  RecordingLog log;
  const std::string path = dir.File("f.cache");
  TimedHandle handle(path);
  constexpr int kUsers = 3;
  constexpr int kIterations = 2000;
  std::atomic<bool> closer_started{false};
  std::atomic<int> users_left{kUsers};
  std::atomic<int> written{0};

  // The owner's pattern: reopen when closed, write through a reference, and
  // let go of it so that the closer gets its chances.
  auto user = [&] {
    while (!closer_started) std::this_thread::yield();
    for (int i = 0; i < kIterations; ++i) {
      if (!handle.IsValidHandle()) handle = std::fopen(path.c_str(), "a");
      std::shared_ptr<FILE> s = handle.GetHandle();
      if (s != nullptr && std::fputc('x', s.get()) != EOF) written.fetch_add(1);
      s.reset();
      handle.Tick();
      std::this_thread::yield();
    }
    users_left.fetch_sub(1);
  };
  auto closer = [&] {
    closer_started = true;
    for (int i = 0; users_left > 0; ++i) {
      AdvanceClockForTesting(kIdle);
      handle.CloseIfExpired();
      if (i % 8 == 0) handle.Close();
      std::this_thread::yield();
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(closer);
  for (int t = 0; t < kUsers; ++t) threads.emplace_back(user);
  for (auto& t : threads) t.join();

  handle.Close();
  EXPECT_FALSE(handle.IsValidHandle());
  // Every stream, replaced or closed, was flushed by its last holder.
  EXPECT_EQ(ReadFile(path).size(), static_cast<size_t>(written.load()));
  EXPECT_GT(written.load(), 0);
}

}  // namespace
