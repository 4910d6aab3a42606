// The worker pool runs queued work, and once canceling hands every item that
// never ran (also one queued after Stop) to Canceled, exactly once.
#include "worker_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace {

struct Tally {
  std::atomic<int> processed{0}, canceled{0};
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
  std::promise<void> gate;
  WorkerQueue queue(2);
  queue.Enqueue(new CountingWork(&tally), nullptr);
  queue.Enqueue(new CountingWork(&tally, gate.get_future().share()), nullptr);
  while (tally.processed < 1 || queue.Pending() > 0) std::this_thread::yield();  // one worker waits at the gate
  queue.CancelPending();
  for (int i = 0; i < 5; ++i) queue.Enqueue(new CountingWork(&tally), nullptr);
  gate.set_value();
  queue.Stop();
  queue.Enqueue(new CountingWork(&tally), nullptr);
  queue.Stop();
  EXPECT_EQ(tally.processed, 2);
  EXPECT_EQ(tally.canceled, 6);
}

}  // namespace
