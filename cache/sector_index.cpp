#include "cache/sector_index.h"

#include <climits>

#include <algorithm>
#include <chrono>

#include "cache/sector.h"

_SECTOR* SectorIndex::Find(long long sector) {
  auto it = sectors_.find(sector);
  return it == sectors_.end() ? nullptr : &it->second;
}

_SECTOR& SectorIndex::Enter(long long sector, long long slot, long long size, bool reserved, SteadyTime now) {
  _SECTOR& entry = sectors_[sector];
  entry.cache_offset = slot;
  entry.size = size;
  entry.hits = 0;
  entry.reserved = reserved;
  entry.filled = 0;
  entry.access_time = now;
  entry.checksum = 0;
  entry.checksum_known = false;
  entry.unverified = false;
  return entry;
}

void SectorIndex::InsertReserved(long long sector, long long size, SteadyTime now) {
  long long slot = -1;
  if (!empty_sectors_.empty()) {
    slot = empty_sectors_.front();
    empty_sectors_.pop_front();
  }
  Enter(sector, slot, size, true, now);
}

int SectorIndex::Reserve(long long offset, long long length, SteadyTime now) {
  int count = 0;
  for (long long s = offset; length > 0; s += kSectorSize) {
    const long long piece = std::min(length, kSectorSize);
    if (sectors_.find(s) == sectors_.end()) {
      InsertReserved(s, piece, now);
      ++count;
    }
    length -= piece;
  }
  return count;
}

void SectorIndex::ClearReserved(long long offset, long long length) {
  if (length <= 0 || offset < 0) return;
  // Only the entries that exist are visited: a huge length costs no more
  // than the index holds.
  const long long first = SectorOf(offset);
  const long long steps = length / kSectorSize + (length % kSectorSize != 0 ? 1 : 0);
  const long long end = steps > (LLONG_MAX - first) / kSectorSize ? LLONG_MAX : first + steps * kSectorSize;
  for (auto it = sectors_.lower_bound(first); it != sectors_.end() && it->first < end;) {
    if (!it->second.reserved) {
      ++it;
      continue;
    }
    if (it->second.cache_offset != -1) empty_sectors_.push_back(it->second.cache_offset);
    it = sectors_.erase(it);
  }
}

bool SectorIndex::RangeReady(long long start, long long end, long long* stop, bool* missing) const {
  for (long long s = start; s < end; s += kSectorSize) {
    auto it = sectors_.find(s);
    if (it == sectors_.end() || it->second.reserved) {
      *stop = s;
      *missing = it == sectors_.end();
      return false;
    }
  }
  return true;
}

long long SectorIndex::RunEnd(long long offset, long long ramax) const {
  const long long s = SectorOf(offset);
  auto it = sectors_.find(s);
  if (it == sectors_.end()) return s;
  const long long limit = offset + ramax;
  long long prev = s;
  for (++it; it != sectors_.end(); ++it) {
    if (it->first != prev + kSectorSize) return prev;
    if (it->first > limit) return -1;
    prev = it->first;
  }
  return prev;
}

SectorIndex::Placement SectorIndex::PlaceFetched(long long sector, long long size, SteadyTime now,
                                                 const std::function<long long()>& end_of_file) {
  auto it = sectors_.find(sector);
  if (it == sectors_.end()) {
    long long slot;
    bool appended = false;
    if (empty_sectors_.empty()) {
      slot = end_of_file();
      appended = true;
    } else {
      slot = empty_sectors_.front();
      empty_sectors_.pop_front();
    }
    // Aged from its arrival: an entry dated 0 would be cleared at once.
    return {&Enter(sector, slot, size, false, now), Placed::kNew, appended};
  }
  _SECTOR& entry = it->second;
  entry.size = size;
  if (!entry.reserved) return {&entry, Placed::kSettled, false};
  bool appended = false;
  if (entry.cache_offset == -1) {
    entry.cache_offset = end_of_file();
    appended = true;
  }
  return {&entry, Placed::kReserved, appended};
}

void SectorIndex::AddSettled(long long sector, long long slot, long long size, SteadyTime now) {
  Enter(sector, slot, size, false, now);
}

void SectorIndex::AddKept(long long sector, long long slot, long long size, long long hits, SteadyTime access_time,
                          uint64_t checksum) {
  _SECTOR& entry = Enter(sector, slot, size, false, access_time);
  entry.hits = hits;
  entry.checksum = checksum;
  entry.checksum_known = true;
  entry.unverified = true;
}

void SectorIndex::FreeUnusedSlots(long long file_length) {
  std::vector<long long> used;
  for (const auto& entry : sectors_) used.push_back(entry.second.cache_offset);
  std::sort(used.begin(), used.end());
  empty_sectors_.clear();
  for (long long slot = 0; slot < file_length; slot += kSectorSize) {
    if (!std::binary_search(used.begin(), used.end(), slot)) empty_sectors_.push_back(slot);
  }
}

std::vector<long long> SectorIndex::UnverifiedIn(long long start, long long end) const {
  std::vector<long long> found;
  for (auto it = sectors_.lower_bound(start); it != sectors_.end() && it->first < end; ++it) {
    if (it->second.unverified) found.push_back(it->first);
  }
  return found;
}

void SectorIndex::ForEachSettled(const std::function<void(long long offset, _SECTOR& sector)>& visit) {
  for (auto& entry : sectors_) {
    if (!entry.second.reserved) visit(entry.first, entry.second);
  }
}

std::vector<long long> SectorIndex::SelectOld(SteadyTime now, uint64_t max_used_age, uint64_t max_unused_age) const {
  std::vector<long long> selected;
  for (const auto& entry : sectors_) {
    const _SECTOR& sector = entry.second;
    if (sector.reserved) continue;  // a fetch is under way
    // Compared unsigned, so an access time in the future counts as very old.
    const auto age = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(now - sector.access_time).count());
    if ((sector.hits > 0 && age > max_used_age) || age > max_unused_age) selected.push_back(entry.first);
  }
  return selected;
}

std::vector<SectorAge> SectorIndex::SettledAges() const {
  std::vector<SectorAge> ages;
  for (const auto& entry : sectors_) {
    if (!entry.second.reserved) ages.push_back({entry.second.access_time, entry.second.size});
  }
  return ages;
}

std::vector<long long> SectorIndex::SelectReadBefore(SteadyTime cutoff) const {
  std::vector<long long> selected;
  for (const auto& entry : sectors_) {
    if (!entry.second.reserved && entry.second.access_time <= cutoff) selected.push_back(entry.first);
  }
  return selected;
}

void SectorIndex::Drop(long long sector) {
  auto it = sectors_.find(sector);
  if (it == sectors_.end()) return;
  if (it->second.cache_offset != -1) empty_sectors_.push_back(it->second.cache_offset);
  sectors_.erase(it);
}

std::vector<_SECTOR_USING> SectorIndex::Kept() const {
  std::vector<_SECTOR_USING> kept;
  kept.reserve(sectors_.size());
  for (const auto& entry : sectors_) kept.push_back({entry.first, entry.second.cache_offset});
  return kept;
}

void SectorIndex::Move(long long sector, long long to) {
  _SECTOR& entry = sectors_[sector];
  empty_sectors_.pop_front();
  empty_sectors_.push_back(entry.cache_offset);
  entry.cache_offset = to;
}

void SectorIndex::RetireLowestFreeSlot() {
  if (!empty_sectors_.empty()) empty_sectors_.pop_front();
}

void SectorIndex::SortFreeSlots() { std::sort(empty_sectors_.begin(), empty_sectors_.end()); }

void SectorIndex::DropSettled() {
  for (auto it = sectors_.begin(); it != sectors_.end();) {
    if (it->second.reserved) {
      it->second.cache_offset = -1;
      ++it;
    } else {
      it = sectors_.erase(it);
    }
  }
  empty_sectors_.clear();
}

void SectorIndex::Clear() {
  sectors_.clear();
  empty_sectors_.clear();
}
