// A tmpfs of `bytes` mounted on `directory` (which must exist) for the life
// of the object, to fill up. Mounting needs root with CAP_SYS_ADMIN; when it
// is refused, mounted() is false and why() says why.
#pragma once

#include <string>

class SmallFilesystem {
 public:
  SmallFilesystem(std::string directory, long long bytes);
  ~SmallFilesystem();
  SmallFilesystem(const SmallFilesystem&) = delete;
  SmallFilesystem& operator=(const SmallFilesystem&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& why() const { return why_; }
  // Takes all but `leave` bytes with a filler file; true when it did.
  bool FillLeaving(long long leave);
  // Deletes the filler.
  void Unfill();

 private:
  long long FreeBytes() const;
  std::string directory_;
  std::string filler_;
  bool mounted_ = false;
  std::string why_;
};
