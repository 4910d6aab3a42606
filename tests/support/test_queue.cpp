#include "support/test_queue.h"

#include <chrono>

TestQueue::TestQueue(Mode mode, int workers) : mode_(mode) {
  for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { Worker(); });
  Cache_BindAsyncQ(this);
}

TestQueue::~TestQueue() {
  Cache_UnbindAsyncQ();
  CancelHeld();
  {
    std::unique_lock<std::mutex> guard(lock_);
    // Whatever is still waiting is canceled, as a client does at unmount.
    for (Item& item : ready_) item.cancel = true;
    stopping_ = true;
    changed_.notify_all();
  }
  for (std::thread& t : workers_) t.join();
}

void TestQueue::Release(bool cancel) {
  std::lock_guard<std::mutex> guard(lock_);
  for (Item& item : held_) ready_.push_back({item.work, item.param, cancel});
  held_.clear();
  changed_.notify_all();
}

bool TestQueue::WaitIdle() {
  std::unique_lock<std::mutex> guard(lock_);
  return changed_.wait_for(guard, std::chrono::seconds(10), [this] { return ready_.empty() && running_ == 0; });
}

void TestQueue::Worker() {
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    changed_.wait(guard, [this] { return stopping_ || !ready_.empty(); });
    if (ready_.empty()) return;
    Item item = ready_.front();
    ready_.pop_front();
    ++running_;
    guard.unlock();
    item.cancel ? item.work->Canceled(item.param) : item.work->Process(item.param);
    guard.lock();
    --running_;
    changed_.notify_all();
  }
}
