// The client's asynchronous queue: a fixed pool of worker threads that runs
// the library's background fetches. Each thread keeps its own origin
// connection, so a worker reuses one connection for all its fetches.
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
  explicit WorkerQueue(int threads);
  ~WorkerQueue();  // Stop()s
  WorkerQueue(const WorkerQueue&) = delete;
  WorkerQueue& operator=(const WorkerQueue&) = delete;

  // Called by the library with its queue lock held: only queues the work.
  void Enqueue(IAsyncObj* work, void* param) override;

  // From now on queued work is handed Canceled instead of Process; work
  // already running finishes. Work enqueued later is canceled too.
  void CancelPending();
  // CancelPending, then waits for the workers to end.
  void Stop();

  size_t Pending();

 private:
  void Run();

  std::mutex lock_;
  std::condition_variable wake_;
  // State below is protected by lock_.
  std::deque<std::pair<IAsyncObj*, void*>> work_;
  bool canceling_ = false;
  bool stopping_ = false;

  std::vector<std::thread> threads_;
};
