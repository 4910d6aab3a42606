// Byte and request counts of a mount, kept for the statistics file. Counted
// without a lock: each is an independent relaxed counter, read as a snapshot
// that may be a few bytes behind.
#pragma once

#include <atomic>

struct TransferCounters {
  std::atomic<long long> origin_requests{0};
  std::atomic<long long> bytes_fetched{0};
  std::atomic<long long> bytes_served{0};
  // Bytes of reads during which no origin request was running or started.
  std::atomic<long long> bytes_served_from_cache{0};
  // Bytes read from a read-only file before any origin request was made for
  // it since it was opened: they can only come from sectors its cache file
  // held when opened, which an earlier run kept. (Once a file has asked the
  // origin for anything, its later reads are not counted here, even those
  // that kept sectors serve.)
  std::atomic<long long> bytes_served_from_kept_cache{0};
  // Origin requests running now.
  std::atomic<long long> in_flight{0};

  static void Add(std::atomic<long long>& counter, long long amount) {
    counter.fetch_add(amount, std::memory_order_relaxed);
  }
  static long long Get(const std::atomic<long long>& counter) { return counter.load(std::memory_order_relaxed); }
};
