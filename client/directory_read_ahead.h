// Reading ahead across the files of a directory. Tools that copy or scan a
// tree (cp -r, rsync, tar c, grep -r) open its files one after the other and
// read each from its start, so every file's first bytes wait a round trip to
// the origin while nothing else is asked. Once a reader opens two files of a
// directory one after the other in the order its listing gives them (what
// cp -r follows) or in name order (what rsync follows), the next files in
// that order have their first bytes fetched in the background, several at a
// time, and the reader finds them in the cache.
//
// A single open, or opens that jump about, start nothing: what is read
// ahead is bounded by `files_ahead` files past the last one opened.
//
// Thread safety: every public operation may be called from many threads.
// The lock is a leaf: the lister and the filler are called without it.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

class DirectoryReadAhead {
 public:
  // The regular files of `directory` in listing order; false when it cannot
  // be listed. Called on a worker thread: it may ask the origin.
  using Lister = std::function<bool(const std::string& directory, std::vector<std::string>* names)>;
  // Brings the first bytes of the file at `path` into the cache.
  using Filler = std::function<void(const std::string& path)>;

  DirectoryReadAhead(int threads, int files_ahead, Lister list, Filler fill);
  ~DirectoryReadAhead();  // Stop()s
  DirectoryReadAhead(const DirectoryReadAhead&) = delete;
  DirectoryReadAhead& operator=(const DirectoryReadAhead&) = delete;

  // A reader opened the file at `path` ("/dir/name"). Returns at once.
  void Opened(const std::string& path);
  // True while a reader is walking `directory`: one of its opens there was a
  // step forward, and the directory has not been forgotten for others since.
  bool Walking(const std::string& directory);
  // Returns once nothing is queued or running.
  void WaitIdle();
  // Drops what is queued and waits for the fills running. Idempotent.
  void Stop();

 private:
  // One way of walking a directory: its files in some order, the position of
  // the last one opened and how far the fills reach.
  struct Walk {
    std::vector<std::string> names;
    std::map<std::string, long> position;
    long last = -1;
    long queued_until = -1;
  };
  // What is known of a directory being read: by listing order and by name.
  struct Stream {
    std::string directory;
    Walk walks[2];
    unsigned long long used = 0;
    bool walked = false;  // some open there was a step forward
  };

  void Run();
  void Notice(const std::string& path);
  // The stream of `directory` holding `name`, listed afresh when it lacks
  // it; null when the directory cannot be listed. REQUIRES: lock_ held (let go while listing).
  Stream* StreamOf(const std::string& directory, const std::string& name, std::unique_lock<std::mutex>* lock);
  // Moves `walk` to the file at `at`, queueing fills when it moved forward by a step.
  // True when it was a step forward.
  bool Step(const std::string& directory, Walk* walk, long at);  // REQUIRES: lock_ held

  const int files_ahead_;
  const Lister list_;
  const Filler fill_;

  std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  // State below is protected by lock_.
  std::deque<std::string> opened_;  // opens not yet looked at
  std::deque<std::string> fills_;   // paths to fill, oldest first
  std::set<std::string> pending_;   // paths queued or being filled
  std::vector<Stream> streams_;     // the directories being read, a few at most
  unsigned long long uses_ = 0;
  int running_ = 0;
  bool stopping_ = false;

  std::vector<std::thread> threads_;
};
