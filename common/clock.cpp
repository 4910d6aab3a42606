#include "common/clock.h"

#include <atomic>
#include <cstdint>

namespace {
// Relaxed: the offset is a test knob; no other data is published through it.
std::atomic<int64_t> g_offset_ns{0};
}  // namespace

SteadyTime SteadyNow() {
  return std::chrono::steady_clock::now() +
         std::chrono::nanoseconds(g_offset_ns.load(std::memory_order_relaxed));
}

void AdvanceClockForTesting(std::chrono::nanoseconds delta) {
  g_offset_ns.fetch_add(delta.count(), std::memory_order_relaxed);
}

void ResetClockForTesting() { g_offset_ns.store(0, std::memory_order_relaxed); }
