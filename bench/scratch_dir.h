// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes.
#pragma once

#include <string>

class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();

  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // The directory with a trailing '/', as cache files expect it; empty when
  // it could not be created.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};
