// When a sector cache reads ahead, and how much: a pure decision over the
// recent reads of one file, with no file, lock or clock of its own.
//
// Reads that follow each other (each starting at or after the previous one,
// no further than the largest block beyond it, at most five minutes later)
// form a stream. Once a stream holds more than `rahit` reads, the next read
// asks for a block beyond the cached run it lies in. Blocks climb a ladder
// from `ramin`, doubling up to `ramax`; each ends on a sector boundary or at
// the end of the file. A new stream starts at the foot of the ladder again.
#pragma once

#include <array>
#include <cstddef>
#include <deque>

#include "common/clock.h"

// One remembered read.
struct _READHISTORY {
  long long offset;
  unsigned long long size;
  SteadyTime time;
};

class ReadAheadPolicy {
 public:
  // Why a read did or did not start a block (the cache logs it).
  enum class Verdict {
    kFetch,           // a block is due: see Decision::offset and size
    kBusy,            // a block is being fetched already
    kRunTooLong,      // the cached run reaches beyond the largest block
    kCachedToEnd,     // cached up to the end of the file: the stream ends
    kBeyondQuota,     // the run ends more than one storage limit ahead
    kFirstRead,       // a new stream starts with this read
    kNotContinuous,   // this read breaks the stream; a new one starts
    kTooFewReads,     // the stream is not long enough yet
  };

  struct Read {
    long long offset;
    unsigned long long size;
    SteadyTime time;
    // Where the cached run the read lies in ends: the sector to fetch next,
    // or -1 when the run reaches beyond offset + ramax.
    long long run_end;
    bool busy;  // a block of this file is still being fetched
  };

  struct Settings {
    long long origin_size;
    unsigned long long quota;  // the storage limit
    unsigned long long rahit;
    long long ramax;
  };

  struct Decision {
    Verdict verdict;
    long long offset = 0;  // of the block, when verdict is kFetch
    long long size = 0;
    size_t history_size = 0;  // reads remembered before this one
  };

  // Reads further apart in time are not one stream.
  static constexpr long long kMaxPauseSeconds = 300;
  static constexpr size_t kHistoryLength = 10;

  // The ladder is set once, from the settings of the file's opening.
  ReadAheadPolicy(long long ramin, long long ramax);

  // Records `read` where it counts and decides on a block.
  Decision Consider(const Read& read, const Settings& settings);
  // Forgets the stream (the file's sectors were dropped).
  void Forget() { history_.clear(); }

 private:
  Decision Decide(const Read& read, const Settings& settings);
  void Record(const Read& read);

  std::deque<_READHISTORY> history_;  // oldest first
  std::array<long long, 50> ladder_{};
  int ladder_position_ = 1;  // 1-based: the size of the next block
};
