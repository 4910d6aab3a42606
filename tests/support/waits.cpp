#include "support/waits.h"

#include <cstdio>
#include <cstdlib>

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto give_up = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < give_up) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done();
}

Background::Background(std::function<void()> work)
    : thread_([this, work = std::move(work)] {
        work();
        done_.store(true);
      }) {}

Background::~Background() { thread_.join(); }

bool Background::WaitDone(std::chrono::milliseconds limit) const {
  return WaitFor([this] { return Done(); }, limit);
}

Watchdog::Watchdog(std::string what, std::chrono::seconds limit)
    : thread_([this, what = std::move(what), limit] {
        std::unique_lock<std::mutex> guard(lock_);
        if (!changed_.wait_for(guard, limit, [this] { return disarmed_; })) {
          std::fprintf(stderr, "watchdog: %s did not finish within %lld s (deadlock?)\n", what.c_str(),
                       static_cast<long long>(limit.count()));
          std::fflush(stderr);
          std::abort();
        }
      }) {}

Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    disarmed_ = true;
    changed_.notify_all();
  }
  thread_.join();
}
