// Holds the first thread that reaches a named test point until the test lets
// it go; every other arrival passes. Replaces waiting on a log line or a
// sleep: the test knows exactly where the other thread stands.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "common/test_point.h"

class TestPointGate {
 public:
  explicit TestPointGate(std::string point) : point_(std::move(point)) {
    SetTestPointHook([this](const char* name) {
      std::unique_lock<std::mutex> guard(lock_);
      if (point_ != name || held_ || open_) return;
      held_ = true;
      changed_.notify_all();
      changed_.wait(guard, [this] { return open_; });
    });
  }
  ~TestPointGate() {
    Release();
    SetTestPointHook(nullptr);
  }
  TestPointGate(const TestPointGate&) = delete;
  TestPointGate& operator=(const TestPointGate&) = delete;

  // True once a thread is held at the point; false after `limit`.
  bool WaitUntilHeld(std::chrono::seconds limit = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [this] { return held_; });
  }
  // Lets the held thread (and every later one) go.
  void Release() {
    std::lock_guard<std::mutex> guard(lock_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  const std::string point_;
  std::mutex lock_;
  std::condition_variable changed_;
  bool held_ = false;  // guarded by lock_
  bool open_ = false;  // guarded by lock_
};
