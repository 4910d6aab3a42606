// Binding of the client's asynchronous queue and the hand-over of work to it.
#include <cstdint>

#include "common/thread_annotations.h"
#include "korvcache.h"

namespace {
// Guards `asyncq` and every hand-over: Enqueue runs with it held, so a queue
// can never be unbound while it is receiving work.
Mutex asyncqlock;
IAsyncQueue* asyncq GUARDED_BY(asyncqlock) = nullptr;

// Passed to Process when the work runs inline and the caller gave no
// parameter: a non-null marker that tells the item it runs on the queuing
// thread (which may hold locks the item must not take again).
void* const kInlineMarker = reinterpret_cast<void*>(static_cast<uintptr_t>(1));
}  // namespace

extern "C" KORV_EXPORT bool Cache_BindAsyncQ(IAsyncQueue* queue) {
  if (queue == nullptr) return false;
  MutexLock guard(asyncqlock);
  asyncq = queue;
  return true;
}

extern "C" KORV_EXPORT void Cache_UnbindAsyncQ() {
  MutexLock guard(asyncqlock);
  asyncq = nullptr;
}

extern "C" KORV_EXPORT void QueueAsync(IAsyncObj* work, void* param) {
  {
    MutexLock guard(asyncqlock);
    if (asyncq != nullptr) {
      asyncq->Enqueue(work, param);
      return;
    }
  }
  work->Process(param != nullptr ? param : kInlineMarker);
}
