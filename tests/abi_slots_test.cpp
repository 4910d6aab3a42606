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

// ILog: a virtual destructor, then Write.
class MyLog {
 public:
  virtual ~MyLog() {}
  __attribute__((format(printf, 3, 0))) virtual void Write(int level, const char* format, va_list args) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    last_level = level;
    last_line = text;
  }
  int last_level = 0;
  std::string last_line;
};

// The queue: a slot the library never calls, then Enqueue.
class MyQueue {
 public:
  virtual void NeverCalled() { ++never_called; }
  virtual void Enqueue(void* work, void* param) {
    last_work = work;
    last_param = param;
  }
  int never_called = 0;
  void* last_work = nullptr;
  void* last_param = nullptr;
};

// IFetch: Get, then Describe.
class MyFetch {
 public:
  virtual long long Get(long long offset, long length, std::shared_ptr<_FS_HANDLE>, IFetchCallback*) {
    got_offset = offset;
    got_length = length;
    return 0;
  }
  virtual std::string Describe(_FS_HANDLE*) { return "described"; }
  long long got_offset = -1;
  long got_length = -1;
};

}  // namespace client_side

namespace {

class CountingWork : public IAsyncObj {
 public:
  void Process(void* param) override { processed.push_back(param); }
  void Canceled(void*) override { ++canceled; }
  std::vector<void*> processed;
  int canceled = 0;
};

// Without a bound queue work runs at once, a null param replaced by the
// marker 1; a null logger or queue never replaces a bound one; an unbound
// logger writes nothing and nothing fails.
TEST(AbiSlots, WorkRunsInlineWithoutAQueueAndNullBindingsKeepTheBoundOnes) {
  Cache_UnbindAsyncQ();
  CountingWork work;
  int context = 0;
  QueueAsync(&work, nullptr);
  QueueAsync(&work, &context);
  EXPECT_EQ(work.processed, (std::vector<void*>{reinterpret_cast<void*>(uintptr_t{1}), &context}));
  {
    RecordingLog log;
    EXPECT_FALSE(Cache_BindLogger(nullptr));
    KORV_LOG(LOGLEVEL_DEBUG, "[CACHE     ] [%s] %lld/%d", "a.txt", 5LL, 7);
    EXPECT_EQ(log.Lines(), (std::vector<std::pair<LOGLEVEL, std::string>>{{LOGLEVEL_DEBUG, "[CACHE     ] [a.txt] 5/7"}}));
    TestQueue queue(TestQueue::Mode::kHold);
    EXPECT_FALSE(Cache_BindAsyncQ(nullptr));
    QueueAsync(&work, nullptr);
    EXPECT_EQ(queue.Held(), 1u);
  }
  EXPECT_EQ(CurrentLogger(), nullptr);
  KORV_LOG(LOGLEVEL_INFO, "nobody listens");
  __LOG__A(nullptr, LOGLEVEL_INFO, "explicitly nobody");
  EXPECT_EQ(work.processed.size(), 2u);
  EXPECT_EQ(work.canceled, 1);
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
  EXPECT_EQ(log.last_level, LOGLEVEL_WARNING);
  EXPECT_EQ(log.last_line, "[CACHE     ] slot three");

  client_side::MyQueue queue;
  CountingWork work;
  int param = 0;
  ASSERT_TRUE(Cache_BindAsyncQ(reinterpret_cast<IAsyncQueue*>(&queue)));
  QueueAsync(&work, &param);
  Cache_UnbindAsyncQ();
  EXPECT_EQ(queue.last_work, static_cast<void*>(&work));
  EXPECT_EQ(queue.last_param, &param);
  EXPECT_EQ(queue.never_called, 0);

  client_side::MyFetch fetch;
  IFetch* as_library_sees_it = reinterpret_cast<IFetch*>(&fetch);
  EXPECT_EQ(CallFetchSlot(as_library_sees_it, 1048576, 4096), 0);
  EXPECT_EQ(fetch.got_offset, 1048576);
  EXPECT_EQ(fetch.got_length, 4096);
  EXPECT_EQ(CallHandleInfoSlot(as_library_sees_it), "described");
#endif
}

}  // namespace
