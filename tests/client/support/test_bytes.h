// Bytes for the client's tests: random, so that a range delivered from the
// wrong offset cannot compare equal, and compared with a message that gives
// sizes and the first difference instead of megabytes.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

inline std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; i += 8) {
    const uint64_t word = random();
    memcpy(&bytes[i], &word, std::min<size_t>(8, size - i));
  }
  return bytes;
}

inline ::testing::AssertionResult Same(const std::string& got, const std::string& expected) {
  if (got == expected) return ::testing::AssertionSuccess();
  const auto at = std::mismatch(got.begin(), got.end(), expected.begin(), expected.end()).first - got.begin();
  return ::testing::AssertionFailure() << got.size() << " bytes instead of " << expected.size()
                                       << ", first difference at " << at;
}
