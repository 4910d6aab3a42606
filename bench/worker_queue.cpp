#include "bench/worker_queue.h"

WorkerQueue::WorkerQueue(int workers) {
  for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { Worker(); });
}

WorkerQueue::~WorkerQueue() {
  Unbind();
  Drain();
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
  }
  changed_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void WorkerQueue::Bind() {
  Cache_BindAsyncQ(this);
  std::lock_guard<std::mutex> guard(lock_);
  bound_ = true;
}

void WorkerQueue::Unbind() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!bound_) return;
    bound_ = false;
  }
  Cache_UnbindAsyncQ();
}

void WorkerQueue::Enqueue(IAsyncObj* work, void* param) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    ready_.emplace_back(work, param);
  }
  changed_.notify_one();
}

void WorkerQueue::Drain() {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] { return ready_.empty() && running_ == 0; });
}

void WorkerQueue::Worker() {
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    changed_.wait(guard, [this] { return stopping_ || !ready_.empty(); });
    if (ready_.empty()) return;
    std::pair<IAsyncObj*, void*> item = ready_.front();
    ready_.pop_front();
    ++running_;
    guard.unlock();
    item.first->Process(item.second);  // the item deletes itself
    guard.lock();
    --running_;
    if (ready_.empty() && running_ == 0) changed_.notify_all();
  }
}
