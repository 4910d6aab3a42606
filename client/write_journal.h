// The journal of unsaved writes: one small record per changed file under
// CACHE_DIR/journal/, written before the first byte of a change reaches the
// file's cache and removed once the file is uploaded (or removed). A record
// names the remote path, the origin version the change was based on and the
// cache file that holds the local bytes, so that a run that crashed leaves
// enough to upload those bytes, or to keep them, at the next start.
//
// Records are written whole or not at all (a temporary file, fsync, rename,
// fsync of the directory); one that cannot be read is reported and set
// aside, never trusted.
//
// Thread safety: every operation may be called from many threads; the
// functions taking a RemoteFile require its io_lock (or sole use of it).
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "remote_file.h"

struct JournalRecord {
  std::string id;          // the record's file name under journal/
  std::string path;        // the remote path
  bool is_new = false;     // the file was not on the origin: it must still be absent
  std::string validator;   // the origin version the change was based on
  long long size = 0;      // and that version's size and mtime (a validator from a
  long long mtime = 0;     // listing may be a date where a Stat gives an ETag)
  std::string local_name;  // the cache file holding the bytes, in the cache directory
};

class WriteJournal {
 public:
  // `origin` is asked for the version a change is based on when the drive
  // does not know it (after an upload of its own).
  WriteJournal(std::string cache_dir, Origin* origin);
  ~WriteJournal();
  WriteJournal(const WriteJournal&) = delete;
  WriteJournal& operator=(const WriteJournal&) = delete;

  // Creates journal/ and takes its lock. False with `error` set when the
  // directory cannot be used; `*owner` false when another live drive holds
  // the lock (its records are its own: nothing is recovered then).
  bool Open(bool* owner, std::string* error);

  const std::string& cache_dir() const { return cache_dir_; }

  // Writes (or rewrites, after a rename) the file's record.
  bool Record(RemoteFile* file);
  // Removes the file's record, if it has one.
  void Drop(RemoteFile* file);
  // Every record left in journal/; those that cannot be read are reported,
  // renamed to "<id>.unreadable" and left out.
  std::vector<JournalRecord> Leftovers();
  void Remove(const std::string& id);

  // Switches the file's cache object to mode 'w' and notes which cache file
  // the library made for it: the one that appeared meanwhile. Files become
  // writable one at a time, so that no other one appears in between.
  int MakeWritable(RemoteFile* file);
  // Flushes the file's local bytes to the disk.
  bool SyncLocalBytes(RemoteFile* file);
  // Asks the origin for the version of a file on it whose validator the
  // drive does not know, so that a record names what a change is based on.
  void LearnVersion(RemoteFile* file);

 private:
  const std::string cache_dir_;
  const std::string dir_;
  Origin* const origin_;
  int lock_fd_ = -1;
  std::mutex writable_lock_;  // held while a cache object becomes writable
};

// Before the first change of a file since its last upload: the parts not
// cached yet are fetched (unless `replaces_all`: the change is a cut to
// zero), so that its cache file holds the whole file, and its record is
// written. 0, or -EIO when either fails: the change is then refused.
// REQUIRES: file->io_lock held.
int PrepareFirstChange(RemoteFile* file, bool replaces_all);
