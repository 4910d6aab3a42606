// Clients are compiled against their own copy of the interfaces. This test
// declares the client-side interfaces independently, in the slot order the
// library documents, hands such objects to the library and checks that the
// library calls the operation the client meant.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cache/logging.h"
#include "korvcache.h"
#include "support/recording_log.h"
#include "support/slot_caller.h"
#include "support/test_queue.h"

namespace client_side {

// ILog: a virtual destructor, then Write. The queue: a slot the library never
// calls, then Enqueue. IFetch: Get, then Describe.
struct MyLog {
  virtual ~MyLog() {}
  __attribute__((format(printf, 3, 0))) virtual void Write(int level, const char* format, va_list args) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    line = std::to_string(level) + " " + text;
  }
  std::string line;
};
struct MyQueue {
  virtual void NeverCalled() {}
  virtual void Enqueue(void* work, void* param) { enqueued = {work, param}; }
  std::pair<void*, void*> enqueued;
};
struct MyFetch {
  virtual long long Get(long long at, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback*) { return at + length; }
  virtual std::string Describe(_FS_HANDLE*) { return "described"; }
};

}  // namespace client_side

namespace {

struct CountingWork : IAsyncObj {
  void Process(void* param) override { processed.push_back(param); }
  void Canceled(void*) override {}
  std::vector<void*> processed;
};

// Without a bound queue work runs at once, a null param replaced by the
// marker 1; a null logger or queue never replaces a bound one; an unbound
// logger writes nothing and nothing fails.
TEST(AbiSlots, WorkRunsInlineWithoutAQueueAndNullBindingsKeepTheBoundOnes) {
  Cache_UnbindAsyncQ();
  CountingWork work;
  QueueAsync(&work, nullptr);
  QueueAsync(&work, &work);
  EXPECT_EQ(work.processed, (std::vector<void*>{reinterpret_cast<void*>(uintptr_t{1}), &work}));
  {
    RecordingLog log;
    EXPECT_FALSE(Cache_BindLogger(nullptr));
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] %lld/%d", "a.txt", 5LL, 7);
    EXPECT_EQ(log.Count("[CACHE     ] [a.txt] 5/7"), 1);
    TestQueue queue(TestQueue::Mode::kHold);
    EXPECT_FALSE(Cache_BindAsyncQ(nullptr));
    QueueAsync(&work, nullptr);
    EXPECT_EQ(queue.Held(), 1u);
  }
  EXPECT_EQ(CurrentLogger(), nullptr);
  __LOG__A(nullptr, LOGLEVEL_INFO, "explicitly nobody");
}

TEST(AbiSlots, LibraryCallsTheClientsDeclaredOperations) {
#if defined(KORV_SANITIZE)
  // The sanitizer's vptr check rightly objects to calling through a type the
  // object was not declared with, which is exactly what this test does.
  GTEST_SKIP() << "slot layout is checked in the plain build";
#else
  client_side::MyLog log;
  ASSERT_TRUE(Cache_BindLogger(reinterpret_cast<ILog*>(&log)));
  KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] %s", "slot three");
  Cache_UnbindLogger();
  EXPECT_EQ(log.line, "4 [CACHE     ] slot three");
  client_side::MyQueue queue;
  CountingWork work;
  ASSERT_TRUE(Cache_BindAsyncQ(reinterpret_cast<IAsyncQueue*>(&queue)));
  QueueAsync(&work, &log);
  Cache_UnbindAsyncQ();
  EXPECT_EQ(queue.enqueued, std::make_pair(static_cast<void*>(&work), static_cast<void*>(&log)));
  client_side::MyFetch fetch;
  EXPECT_EQ(CallFetchSlot(reinterpret_cast<IFetch*>(&fetch), 1048576, 4096), 1048576 + 4096);
  EXPECT_EQ(CallHandleInfoSlot(reinterpret_cast<IFetch*>(&fetch)), "described");
#endif
}

}  // namespace
