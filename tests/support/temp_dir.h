// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
#pragma once

#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory, without a trailing slash.
  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes `contents` to File(name) and returns that path.
  std::string Write(const std::string& name, const std::string& contents) const;

 private:
  std::string path_;
};
