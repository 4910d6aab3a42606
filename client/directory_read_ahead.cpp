#include "directory_read_ahead.h"

#include <algorithm>

namespace {

// How far a reader may skip ahead and still count as walking the directory
// in order: rsync passes files it need not copy, a reader its own temporaries.
constexpr long kLongestStep = 3;
// Directories followed at once; the least recently used one is forgotten.
constexpr size_t kStreams = 8;

enum { kListingOrder = 0, kNameOrder = 1 };

}  // namespace

DirectoryReadAhead::DirectoryReadAhead(int threads, int files_ahead, Lister list, Filler fill)
    : files_ahead_(files_ahead), list_(std::move(list)), fill_(std::move(fill)) {
  for (int i = 0; i < std::max(threads, 1); ++i) threads_.emplace_back([this] { Run(); });
}

DirectoryReadAhead::~DirectoryReadAhead() { Stop(); }

void DirectoryReadAhead::Opened(const std::string& path) {
  if (files_ahead_ <= 0) return;
  std::lock_guard<std::mutex> guard(lock_);
  if (stopping_) return;
  opened_.push_back(path);
  wake_.notify_one();
}

void DirectoryReadAhead::WaitIdle() {
  std::unique_lock<std::mutex> lock(lock_);
  idle_.wait(lock, [this] { return stopping_ || (opened_.empty() && fills_.empty() && running_ == 0); });
}

void DirectoryReadAhead::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    opened_.clear();
    fills_.clear();
  }
  wake_.notify_all();
  idle_.notify_all();
  for (std::thread& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
}

void DirectoryReadAhead::Run() {
  std::unique_lock<std::mutex> lock(lock_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !opened_.empty() || !fills_.empty(); });
    if (stopping_) return;
    ++running_;
    // Opens first: they decide what is worth filling next.
    if (!opened_.empty()) {
      const std::string path = opened_.front();
      opened_.pop_front();
      lock.unlock();
      Notice(path);
      lock.lock();
    } else {
      const std::string path = fills_.front();
      fills_.pop_front();
      lock.unlock();
      fill_(path);
      lock.lock();
      pending_.erase(path);
    }
    --running_;
    if (opened_.empty() && fills_.empty() && running_ == 0) idle_.notify_all();
  }
}

void DirectoryReadAhead::Notice(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return;
  const std::string directory = slash == 0 ? "/" : path.substr(0, slash);
  const std::string name = path.substr(slash + 1);
  std::unique_lock<std::mutex> lock(lock_);
  Stream* stream = StreamOf(directory, name, &lock);
  if (stream == nullptr || stopping_) return;
  for (Walk& walk : stream->walks) {
    auto it = walk.position.find(name);
    if (it != walk.position.end() && Step(directory, &walk, it->second)) stream->walked = true;
  }
  if (!fills_.empty()) wake_.notify_all();
}

DirectoryReadAhead::Stream* DirectoryReadAhead::StreamOf(const std::string& directory, const std::string& name,
                                                         std::unique_lock<std::mutex>* lock) {
  auto find = [&]() -> Stream* {
    for (Stream& stream : streams_) {
      if (stream.directory == directory) return &stream;
    }
    return nullptr;
  };
  Stream* stream = find();
  if (stream != nullptr && stream->walks[kListingOrder].position.count(name) != 0) {
    stream->used = ++uses_;
    return stream;
  }
  // A directory not followed yet, or one that gained a file since it was listed.
  std::vector<std::string> names;
  lock->unlock();
  const bool listed = list_(directory, &names);
  lock->lock();
  if (!listed) return nullptr;
  stream = find();
  if (stream == nullptr) {
    if (streams_.size() < kStreams) {
      streams_.emplace_back();
      stream = &streams_.back();
    } else {
      stream = &*std::min_element(streams_.begin(), streams_.end(),
                                  [](const Stream& a, const Stream& b) { return a.used < b.used; });
    }
  }
  // The walks start over: positions in the old listing mean nothing in the new.
  *stream = Stream();
  stream->directory = directory;
  stream->used = ++uses_;
  stream->walks[kListingOrder].names = names;
  std::sort(names.begin(), names.end());
  stream->walks[kNameOrder].names = std::move(names);
  for (Walk& walk : stream->walks) {
    for (size_t i = 0; i < walk.names.size(); ++i) walk.position[walk.names[i]] = static_cast<long>(i);
  }
  return stream;
}

bool DirectoryReadAhead::Walking(const std::string& directory) {
  std::lock_guard<std::mutex> guard(lock_);
  return std::any_of(streams_.begin(), streams_.end(),
                     [&](const Stream& stream) { return stream.walked && stream.directory == directory; });
}

bool DirectoryReadAhead::Step(const std::string& directory, Walk* walk, long at) {
  const bool forward = walk->last >= 0 && at > walk->last && at <= walk->last + kLongestStep;
  if (at <= walk->last) walk->queued_until = at;  // read again from further back
  walk->last = at;
  if (!forward) return false;
  const long until = std::min<long>(at + files_ahead_, static_cast<long>(walk->names.size()) - 1);
  for (long i = std::max(at, walk->queued_until) + 1; i <= until; ++i) {
    const std::string path = (directory == "/" ? "" : directory) + "/" + walk->names[static_cast<size_t>(i)];
    if (pending_.insert(path).second) fills_.push_back(path);
  }
  walk->queued_until = std::max(walk->queued_until, until);
  return true;
}
