#include "cache/read_ahead_policy.h"

#include <algorithm>
#include <chrono>

#include "cache/sector.h"

ReadAheadPolicy::ReadAheadPolicy(long long ramin, long long ramax) {
  ladder_[0] = ramin;
  for (size_t i = 1; i < ladder_.size(); ++i) ladder_[i] = std::min(ladder_[i - 1] * 2, ramax);
}

void ReadAheadPolicy::Record(const Read& read) {
  if (history_.empty()) ladder_position_ = 1;  // a new stream starts small again
  history_.push_back({read.offset, read.size, read.time});
  while (history_.size() > kHistoryLength) history_.pop_front();
}

ReadAheadPolicy::Decision ReadAheadPolicy::Consider(const Read& read, const Settings& settings) {
  const size_t before = history_.size();
  Decision decision = Decide(read, settings);
  decision.history_size = before;
  return decision;
}

ReadAheadPolicy::Decision ReadAheadPolicy::Decide(const Read& read, const Settings& settings) {
  if (read.busy) {
    Record(read);
    return {Verdict::kBusy};
  }
  if (read.run_end == -1) return {Verdict::kRunTooLong};
  if (read.run_end + kSectorSize >= settings.origin_size) {
    history_.clear();
    return {Verdict::kCachedToEnd};
  }
  // Never fill more than one storage limit beyond the reader.
  if (static_cast<unsigned long long>(read.run_end) >= static_cast<unsigned long long>(read.offset) + settings.quota) {
    Record(read);
    return {Verdict::kBeyondQuota};
  }
  if (history_.empty()) {
    Record(read);
    return {Verdict::kFirstRead};
  }
  const _READHISTORY& newest = history_.back();
  const long long paused = std::chrono::duration_cast<std::chrono::seconds>(read.time - newest.time).count();
  if (paused > kMaxPauseSeconds || read.offset < newest.offset || read.offset > newest.offset + settings.ramax) {
    history_.clear();
    Record(read);
    return {Verdict::kNotContinuous};
  }
  if (history_.size() <= settings.rahit) {
    Record(read);
    return {Verdict::kTooFewReads};
  }
  // The block ends on a sector boundary (or the end of the file): a block
  // ending inside a sector would leave it settled short, and later reads
  // would stop there as if the file ended.
  const long long to_end = settings.origin_size - read.run_end;
  long long size = std::min({ladder_[static_cast<size_t>(ladder_position_ - 1)], settings.ramax, to_end});
  size = std::min((size + kSectorSize - 1) / kSectorSize * kSectorSize, to_end);
  ladder_position_ = std::min(ladder_position_ + 1, static_cast<int>(ladder_.size()));
  Record(read);
  return {Verdict::kFetch, read.run_end, size};
}
