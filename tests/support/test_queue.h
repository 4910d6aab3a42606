// An asynchronous queue for tests. Binds itself on construction and unbinds
// on destruction, when it cancels whatever it still holds and joins its
// workers. Declare it after the caches it serves, so it goes first: a cache's
// Close waits for every task that refers to it.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "korvcache.h"

class TestQueue : public IAsyncQueue {
 public:
  // kRun: workers run each task as it arrives; kHold: tasks wait until
  // RunHeld or CancelHeld; kDrop: workers hand each task Canceled.
  enum class Mode { kRun, kHold, kDrop };

  explicit TestQueue(Mode mode = Mode::kRun, int workers = 2);
  ~TestQueue();
  TestQueue(const TestQueue&) = delete;
  TestQueue& operator=(const TestQueue&) = delete;

  void Enqueue(IAsyncObj* work, void* param) override {
    std::lock_guard<std::mutex> guard(lock_);
    (mode_ == Mode::kHold ? held_ : ready_).push_back({work, param, mode_ == Mode::kDrop});
    changed_.notify_all();
  }
  void set_mode(Mode mode) {
    std::lock_guard<std::mutex> guard(lock_);
    mode_ = mode;
  }
  size_t Held() {
    std::lock_guard<std::mutex> guard(lock_);
    return held_.size();
  }
  // Hands the held tasks to the workers (to run) or cancels them.
  void RunHeld() { Release(false); }
  void CancelHeld() { Release(true); }
  // Waits until no task is queued or running; false after ~10 s.
  bool WaitIdle();

 private:
  struct Item {
    IAsyncObj* work;
    void* param;
    bool cancel;
  };
  void Release(bool cancel);
  void Worker();

  std::mutex lock_;
  std::condition_variable changed_;
  // State below is protected by lock_.
  Mode mode_;
  std::deque<Item> ready_;
  std::deque<Item> held_;
  int running_ = 0;
  bool stopping_ = false;

  std::vector<std::thread> workers_;
};
