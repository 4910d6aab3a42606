// The worker pool runs queued work, and at shutdown hands every item that
// never ran to Canceled, exactly once.
#include "worker_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace {

struct Tally {
  std::atomic<int> processed{0};
  std::atomic<int> canceled{0};
};

class CountingWork : public IAsyncObj {
 public:
  CountingWork(Tally* tally, std::shared_future<void> gate = {}) : tally_(tally), gate_(std::move(gate)) {}
  void Process(void*) override {
    if (gate_.valid()) gate_.wait();
    ++tally_->processed;
    delete this;
  }
  void Canceled(void*) override {
    ++tally_->canceled;
    delete this;
  }

 private:
  Tally* tally_;
  std::shared_future<void> gate_;
};

TEST(WorkerQueue, RunsWorkAndCancelsWhatNeverRan) {
  Tally tally;
  {
    WorkerQueue queue(3);
    for (int i = 0; i < 50; ++i) queue.Enqueue(new CountingWork(&tally), nullptr);
    while (tally.processed < 50) std::this_thread::yield();
  }
  EXPECT_EQ(tally.canceled, 0);

  Tally stopped;
  std::promise<void> open_gate;
  WorkerQueue queue(1);
  queue.Enqueue(new CountingWork(&stopped, open_gate.get_future().share()), nullptr);
  while (queue.Pending() > 0) std::this_thread::yield();  // the one worker is inside the gated item
  for (int i = 0; i < 5; ++i) queue.Enqueue(new CountingWork(&stopped), nullptr);
  queue.CancelPending();
  open_gate.set_value();
  // Every item is handed its call by the worker before Stop() could decide.
  while (stopped.processed + stopped.canceled < 6) std::this_thread::yield();
  queue.Stop();
  queue.Enqueue(new CountingWork(&stopped), nullptr);
  queue.Stop();
  EXPECT_EQ(stopped.processed, 1);
  EXPECT_EQ(stopped.canceled, 6);
}

}  // namespace
