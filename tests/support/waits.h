// Bounded waits for tests: on a condition, on work running on a thread of
// its own, and a watchdog that turns a deadlock into a failure at once.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

// Polls `done` every 5 ms; false when it is still false after `limit`.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10));

// Runs `work` on a thread of its own; Done() tells whether it has returned.
class Background {
 public:
  explicit Background(std::function<void()> work);
  ~Background();  // joins
  bool Done() const { return done_.load(); }
  // Waits for the work to return; false after `limit`.
  bool WaitDone(std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// Aborts the process with `what` unless destroyed within `limit`: a library
// deadlock then fails its test at once instead of at the harness time-out.
class Watchdog {
 public:
  Watchdog(std::string what, std::chrono::seconds limit);
  ~Watchdog();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool disarmed_ = false;
  std::thread thread_;
};

// Runs `done` when it goes: lets a blocked fake go on whichever way a test
// leaves, before the threads waiting on it are joined.
class OnExit {
 public:
  explicit OnExit(std::function<void()> done) : done_(std::move(done)) {}
  ~OnExit() { done_(); }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;

 private:
  std::function<void()> done_;
};
