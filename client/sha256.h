// SHA-256, for checking downloaded bytes against a known digest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class Sha256 {
 public:
  Sha256();
  void Update(const void* data, size_t length);
  // Lower-case hexadecimal digest; the object is spent afterwards.
  std::string HexDigest();

 private:
  void Block(const uint8_t* block);

  uint32_t state_[8];
  uint8_t buffer_[64];
  size_t buffered_ = 0;
  uint64_t length_ = 0;
};
