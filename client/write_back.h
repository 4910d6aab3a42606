// Write-back: files closed after a change are uploaded by one background
// thread once they have been left alone for a while, instead of by the
// close. Their bytes wait in the cache, recorded in the journal, meanwhile.
//
// Thread safety: every operation may be called from many threads. The
// upload runs outside the lock, on the thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "remote_file.h"

class WriteBack {
 public:
  using Uploader = std::function<int(const std::shared_ptr<RemoteFile>&)>;

  WriteBack(std::chrono::milliseconds quiet, Uploader upload);
  ~WriteBack();  // Stop()s
  WriteBack(const WriteBack&) = delete;
  WriteBack& operator=(const WriteBack&) = delete;

  // Uploads `file` once it has been left alone for the quiet time from now;
  // a file scheduled already waits the quiet time again.
  void Schedule(const std::shared_ptr<RemoteFile>& file);
  // Takes `file` off the schedule: the caller uploads it itself.
  void Cancel(const std::shared_ptr<RemoteFile>& file);
  // Ends the thread after the upload under way, if any; files still
  // scheduled are left to the caller.
  void Stop();

 private:
  void Run();

  const std::chrono::milliseconds quiet_;
  const Uploader upload_;
  std::mutex lock_;
  std::condition_variable changed_;
  // Protected by lock_.
  std::map<std::shared_ptr<RemoteFile>, std::chrono::steady_clock::time_point> due_;
  bool stopping_ = false;
  std::thread thread_;  // last: starts once the rest is ready
};
