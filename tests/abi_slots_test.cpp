// Clients are compiled against their own copy of the interfaces. This test
// declares the client-side interfaces independently, in the slot order the
// library documents, hands such objects to the library and checks that the
// library calls the operation the client meant.
#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cache/logging.h"
#include "korvcache.h"

// Defined in another translation unit, so that the compiler cannot see the
// object's real declared type at the call.
long long CallFetchSlot(IFetch* fetch, long long offset, long length);
std::string CallHandleInfoSlot(IFetch* fetch);

namespace {

// ILog: a virtual destructor, then Write. The queue: a slot the library never
// calls, then Enqueue. IFetch: Get, then Describe.
struct MyLog {
  virtual ~MyLog() {}
  virtual void Write(int level, const char* format, va_list args) {
    line = std::to_string(level) + " " + format + " " + va_arg(args, const char*);
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

struct CountingWork : IAsyncObj {
  void Process(void* param) override { processed.push_back(param); }
  void Canceled(void*) override {}
  std::vector<void*> processed;
};

TEST(AbiSlots, LibraryCallsTheClientsDeclaredOperations) {
#if defined(KORV_SANITIZE)
  // The sanitizer's vptr check rightly objects to calling through a type the
  // object was not declared with, which is exactly what this test does.
  GTEST_SKIP() << "slot layout is checked in the plain build";
#else
  MyLog log;
  MyQueue queue;
  ASSERT_TRUE(Cache_BindLogger(reinterpret_cast<ILog*>(&log)) &&
              Cache_BindAsyncQ(reinterpret_cast<IAsyncQueue*>(&queue)));
  EXPECT_FALSE(Cache_BindLogger(nullptr) || Cache_BindAsyncQ(nullptr));  // nor do they unbind
  KORV_LOG(LOGLEVEL_WARNING, "[CACHE     ] %s", "slot three");
  CountingWork work;
  QueueAsync(&work, &log);
  Cache_UnbindLogger();
  Cache_UnbindAsyncQ();
  EXPECT_EQ(log.line, "4 [CACHE     ] %s slot three");
  EXPECT_EQ(queue.enqueued, std::make_pair(static_cast<void*>(&work), static_cast<void*>(&log)));
  // Without a queue work runs at once, a null param replaced by the marker 1.
  QueueAsync(&work, nullptr);
  QueueAsync(&work, &work);
  EXPECT_EQ(work.processed, (std::vector<void*>{reinterpret_cast<void*>(uintptr_t{1}), &work}));
  MyFetch fetch;
  EXPECT_EQ(CallFetchSlot(reinterpret_cast<IFetch*>(&fetch), 1048576, 4096), 1048576 + 4096);
  EXPECT_EQ(CallHandleInfoSlot(reinterpret_cast<IFetch*>(&fetch)), "described");
#endif
}

}  // namespace
