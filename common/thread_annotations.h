// Lock annotations checked by clang's -Wthread-safety (`make check-locks`),
// and the annotated mutex they need: libstdc++'s std::mutex and
// std::lock_guard carry no annotations, so the analysis sees nothing locked
// through them. Under other compilers the macros expand to nothing.
//
//   Mutex lock_;
//   int count_ GUARDED_BY(lock_);
//   void Bump() REQUIRES(lock_);
//   void Add() { MutexLock guard(lock_); Bump(); }
#pragma once

#include <mutex>

#if defined(__clang__)
#define KORV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KORV_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KORV_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KORV_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KORV_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KORV_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) KORV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KORV_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KORV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) KORV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KORV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KORV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) KORV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) KORV_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KORV_THREAD_ANNOTATION(no_thread_safety_analysis)

// std::mutex as a capability. Lockable, so std::condition_variable_any waits
// on it directly: `wake_.wait_for(lock_, timeout)` with lock_ held.
class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its scope, like std::lock_guard.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};
