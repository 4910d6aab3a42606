#include "write_back.h"

#include <algorithm>

WriteBack::WriteBack(std::chrono::milliseconds quiet, Uploader upload)
    : quiet_(quiet), upload_(std::move(upload)), thread_([this] { Run(); }) {}

WriteBack::~WriteBack() { Stop(); }

void WriteBack::Schedule(const std::shared_ptr<RemoteFile>& file) {
  std::lock_guard<std::mutex> guard(lock_);
  due_[file] = std::chrono::steady_clock::now() + quiet_;
  changed_.notify_all();
}

void WriteBack::Cancel(const std::shared_ptr<RemoteFile>& file) {
  std::lock_guard<std::mutex> guard(lock_);
  due_.erase(file);
}

void WriteBack::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  std::lock_guard<std::mutex> guard(lock_);
  due_.clear();  // the files go with the drive's other references to them
}

void WriteBack::Run() {
  std::unique_lock<std::mutex> guard(lock_);
  while (!stopping_) {
    if (due_.empty()) {
      changed_.wait(guard);
      continue;
    }
    auto next = std::min_element(due_.begin(), due_.end(),
                                 [](const auto& a, const auto& b) { return a.second < b.second; });
    if (next->second > std::chrono::steady_clock::now()) {
      changed_.wait_until(guard, next->second);
      continue;
    }
    const std::shared_ptr<RemoteFile> file = next->first;
    due_.erase(next);
    guard.unlock();
    // A failed upload keeps the bytes (dirty, journaled): it is tried again
    // after another quiet time, unless a close or fsync comes first.
    const bool failed = upload_(file) != 0;
    guard.lock();
    if (failed && !stopping_ && due_.count(file) == 0) due_[file] = std::chrono::steady_clock::now() + quiet_;
  }
}
