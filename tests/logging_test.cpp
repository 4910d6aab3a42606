// Binding of the client's logger and queue, and the hand-over of work.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "cache/logging.h"
#include "korvcache.h"
#include "support/recording_log.h"

namespace {

class CountingWork : public IAsyncObj {
 public:
  void Process(void* param) override { processed.push_back(param); }
  void Canceled(void* param) override { canceled.push_back(param); }
  std::vector<void*> processed;
  std::vector<void*> canceled;
};

class HoldingQueue : public IAsyncQueue {
 public:
  void Enqueue(IAsyncObj* work, void* param) override { held.emplace_back(work, param); }
  std::vector<std::pair<IAsyncObj*, void*>> held;
};

TEST(Logging, LinesReachTheBoundLoggerVerbatimWithTheirLevel) {
  {
    RecordingLog log;
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] [%s] Read failed : %s", "a.txt", "boom");
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] %lld/%d", 5LL, 7);
    auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].first, LOGLEVEL_ERROR);
    EXPECT_EQ(lines[0].second, "[CACHE     ] [a.txt] Read failed : boom");
    EXPECT_EQ(lines[1].first, LOGLEVEL_DEBUG);
    EXPECT_EQ(lines[1].second, "[CACHE     ] 5/7");

    // A null logger keeps the earlier binding.
    EXPECT_FALSE(Cache_BindLogger(nullptr));
    KORV_LOG(LOGLEVEL_INFO, "still bound");
    EXPECT_TRUE(log.Contains("still bound"));
  }
  // The recording logger unbound itself: nothing is written and nothing fails.
  EXPECT_EQ(CurrentLogger(), nullptr);
  KORV_LOG(LOGLEVEL_INFO, "nobody listens");
  __LOG__A(nullptr, LOGLEVEL_INFO, "explicitly nobody");
}

TEST(Logging, WithoutAQueueWorkRunsInlineWithTheMarkerForANullParam) {
  Cache_UnbindAsyncQ();
  CountingWork work;
  int context = 0;
  QueueAsync(&work, nullptr);
  QueueAsync(&work, &context);
  ASSERT_EQ(work.processed.size(), 2u);
  EXPECT_EQ(work.processed[0], reinterpret_cast<void*>(static_cast<uintptr_t>(1)));
  EXPECT_EQ(work.processed[1], &context);
  EXPECT_TRUE(work.canceled.empty());
}

TEST(Logging, ABoundQueueReceivesWorkUntilUnbound) {
  HoldingQueue queue;
  CountingWork work;
  ASSERT_TRUE(Cache_BindAsyncQ(&queue));
  EXPECT_FALSE(Cache_BindAsyncQ(nullptr));  // keeps `queue`

  QueueAsync(&work, nullptr);
  ASSERT_EQ(queue.held.size(), 1u);
  EXPECT_EQ(queue.held[0].first, &work);
  EXPECT_EQ(queue.held[0].second, nullptr);  // no marker: the queue runs it later
  EXPECT_TRUE(work.processed.empty());

  Cache_UnbindAsyncQ();
  QueueAsync(&work, nullptr);
  EXPECT_EQ(queue.held.size(), 1u);
  EXPECT_EQ(work.processed.size(), 1u);
}

}  // namespace
