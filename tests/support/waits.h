// Bounded waits for tests: on a condition, on work running on a thread of
// its own, and a watchdog that turns a deadlock into a failure at once.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

// Polls `done` every 5 ms; false when it is still false after `limit`.
inline bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  for (const auto give_up = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < give_up;) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done();
}

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

// Runs `work` on a thread of its own; Done() tells whether it has returned.
class Background {
 public:
  explicit Background(std::function<void()> work) : thread_([this, work = std::move(work)] {
    work();
    done_ = true;
  }) {}
  ~Background() { thread_.join(); }
  bool Done() const { return done_; }
  // Waits for the work to return; false after `limit`.
  bool WaitDone(std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    return WaitFor([this] { return Done(); }, limit);
  }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// Aborts the process with `what` unless destroyed within `limit`: a library
// deadlock then fails its test at once instead of at the harness time-out.
class Watchdog {
 public:
  Watchdog(std::string what, std::chrono::seconds limit) : thread_([this, what = std::move(what), limit] {
    std::unique_lock<std::mutex> guard(lock_);
    if (changed_.wait_for(guard, limit, [this] { return disarmed_; })) return;
    std::fprintf(stderr, "watchdog: %s did not finish within %lld s (deadlock?)\n", what.c_str(),
                 static_cast<long long>(limit.count()));
    std::abort();
  }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> guard(lock_);
      disarmed_ = true;
      changed_.notify_all();
    }
    thread_.join();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool disarmed_ = false;  // guarded by lock_
  std::thread thread_;
};
