// Which origin sectors a sector cache file holds, in which slots, and which
// slots are free: the in-memory index of a ReadonlyCache. Pure bookkeeping,
// no file and no lock: the cache holds its index lock around every call.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "cache/compaction_plan.h"
#include "common/clock.h"

// One cached sector. A fresh entry is all zero until its creator fills it.
struct _SECTOR {
  long long cache_offset = 0;  // slot position in the cache file; -1 while none is assigned
  long long size = 0;          // valid data bytes in the slot
  long long hits = 0;          // reads served since the sector was last queued
  bool reserved = false;       // data on the way; readers wait while set
  long long filled = 0;        // while reserved: bytes stored from the slot start, without a gap
  SteadyTime access_time{};    // last read, or the reservation
  uint64_t checksum = 0;       // of the valid bytes, when checksum_known
  bool checksum_known = false;
  bool unverified = false;     // kept by an earlier run: checked against its checksum before it is served
};

// When a settled sector was last read, and how many bytes it holds.
struct SectorAge {
  SteadyTime access_time;
  long long size;
};

class SectorIndex {
 public:
  // How a fetched sector found its slot.
  enum class Placed { kNew, kReserved, kSettled };
  struct Placement {
    _SECTOR* sector;
    Placed was;
    bool appended;  // the slot is the end of the file, claimed now
  };

  // The entry of `sector`, or null.
  _SECTOR* Find(long long sector);
  bool empty() const { return sectors_.empty(); }
  size_t size() const { return sectors_.size(); }
  const std::deque<long long>& free_slots() const { return empty_sectors_; }

  // Enters `sector` as reserved for `size` bytes, in the first free slot if
  // there is one; otherwise its slot is appended when the bytes arrive (-1
  // until then).
  void InsertReserved(long long sector, long long size, SteadyTime now);
  // Reserves every sector of [offset, offset + length) not yet in the index,
  // the last one for what remains of `length`; returns how many.
  // REQUIRES: offset is a sector start.
  int Reserve(long long offset, long long length, SteadyTime now);
  // Forgets the sectors of the range that are still reserved, freeing their
  // slots: one step per started sector of `length`, from the sector of
  // `offset`, so an unaligned range that spills into one more sector leaves
  // that sector as it is.
  void ClearReserved(long long offset, long long length);
  // True when every sector of [start, end) is present and settled; else
  // *stop is the first that is not and *missing says whether it is absent.
  bool RangeReady(long long start, long long end, long long* stop, bool* missing) const;
  // How far the run of indexed sectors reaches from `offset`: the sector of
  // `offset` if it is not indexed, else the last sector of the unbroken run
  // after it, or -1 when that run reaches beyond offset + ramax.
  long long RunEnd(long long offset, long long ramax) const;

  // Gives fetched bytes of `sector` (`size` of them) their slot: a new
  // entry takes a free slot or the end of the file (`end_of_file` is asked
  // only then), a reserved one without a slot the end of the file, a settled
  // one keeps its slot. The entry's size becomes `size`.
  Placement PlaceFetched(long long sector, long long size, SteadyTime now,
                         const std::function<long long()>& end_of_file);
  // Enters `sector` as settled at `slot` (a local file taken over whole).
  void AddSettled(long long sector, long long slot, long long size, SteadyTime now);
  // Enters a sector an earlier run kept, settled but not yet verified.
  void AddKept(long long sector, long long slot, long long size, long long hits, SteadyTime access_time,
               uint64_t checksum);
  // Every slot of a file of `file_length` bytes that no sector holds
  // becomes free.
  void FreeUnusedSlots(long long file_length);
  // The unverified sectors among those indexed in [start, end).
  std::vector<long long> UnverifiedIn(long long start, long long end) const;
  // Calls `visit` with every settled sector.
  void ForEachSettled(const std::function<void(long long offset, _SECTOR& sector)>& visit);

  // Settled sectors old enough to go: read at least once and older than
  // `max_used_age` seconds, or older than `max_unused_age` whatever their
  // hits. An access time in the future counts as very old.
  std::vector<long long> SelectOld(SteadyTime now, uint64_t max_used_age, uint64_t max_unused_age) const;
  // Every settled sector's last read and size.
  std::vector<SectorAge> SettledAges() const;
  // Settled sectors last read at or before `cutoff`.
  std::vector<long long> SelectReadBefore(SteadyTime cutoff) const;
  // Drops `sector`, if present, freeing its slot.
  void Drop(long long sector);
  // Every sector left, with its slot.
  std::vector<_SECTOR_USING> Kept() const;
  // Moves `sector` to the free slot `to`, freeing the slot it leaves. The
  // moves of a compaction plan take the free slots in order.
  void Move(long long sector, long long to);
  // Takes the lowest free slot out of use for good (a move that failed
  // half way leaves it holding nothing reliable).
  void RetireLowestFreeSlot();
  // The free slots, to cut the file's free tail off (see CutFreeTail).
  std::deque<long long>* mutable_free_slots() { return &empty_sectors_; }
  void SortFreeSlots();

  // The file went away: settled sectors go, reserved ones stay without a
  // slot (they get one in the new file); no slot is free.
  void DropSettled();
  void Clear();

 private:
  // Makes `sector` an entry with these fields and no hits.
  _SECTOR& Enter(long long sector, long long slot, long long size, bool reserved, SteadyTime now);

  std::map<long long, _SECTOR> sectors_;
  std::deque<long long> empty_sectors_;  // free slots
};
