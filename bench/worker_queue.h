// A plain asynchronous queue for benchmarks: a fixed pool of worker threads
// running the cache's work items in arrival order.
//
// Bind() makes it the library's queue. Before a cache is destroyed, unbind
// and Drain(): the cache's Close waits for every task that refers to it, and
// a task must not be left waiting behind it in this queue. The destructor
// unbinds, drains and joins the workers.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "korvcache.h"

class WorkerQueue : public IAsyncQueue {
 public:
  explicit WorkerQueue(int workers);
  ~WorkerQueue();

  WorkerQueue(const WorkerQueue&) = delete;
  WorkerQueue& operator=(const WorkerQueue&) = delete;

  void Bind();
  void Unbind();
  // Called by the library with its queue lock held.
  void Enqueue(IAsyncObj* work, void* param) override;
  // Waits until nothing is queued or running.
  void Drain();

 private:
  void Worker();

  std::mutex lock_;
  std::condition_variable changed_;
  // State below is protected by lock_.
  std::deque<std::pair<IAsyncObj*, void*>> ready_;
  int running_ = 0;
  bool stopping_ = false;
  bool bound_ = false;

  std::vector<std::thread> workers_;
};
