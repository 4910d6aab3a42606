#include "worker_queue.h"

WorkerQueue::WorkerQueue(int threads) {
  if (threads < 1) threads = 1;
  threads_.reserve(static_cast<size_t>(threads));
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { Run(); });
}

WorkerQueue::~WorkerQueue() { Stop(); }

void WorkerQueue::Enqueue(IAsyncObj* work, void* param) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    work_.emplace_back(work, param);
  }
  wake_.notify_one();
}

void WorkerQueue::CancelPending() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    canceling_ = true;
  }
  wake_.notify_all();
}

void WorkerQueue::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    canceling_ = true;
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
  threads_.clear();
  // Work enqueued after the workers ended still gets its one call.
  std::deque<std::pair<IAsyncObj*, void*>> left;
  {
    std::lock_guard<std::mutex> guard(lock_);
    left.swap(work_);
  }
  for (auto& item : left) item.first->Canceled(item.second);
}

size_t WorkerQueue::Pending() {
  std::lock_guard<std::mutex> guard(lock_);
  return work_.size();
}

void WorkerQueue::Run() {
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    wake_.wait(guard, [this] { return stopping_ || !work_.empty(); });
    if (work_.empty()) return;  // stopping, nothing left
    auto item = work_.front();
    work_.pop_front();
    const bool cancel = canceling_;
    guard.unlock();
    // The work item deletes itself after either call.
    if (cancel) {
      item.first->Canceled(item.second);
    } else {
      item.first->Process(item.second);
    }
    guard.lock();
  }
}
