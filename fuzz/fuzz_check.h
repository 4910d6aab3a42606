// What the parser fuzz targets share: a failed property aborts with its
// description (libFuzzer then keeps the input), and a byte-for-character
// widening (Latin-1) for the wide forms.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

inline void Check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

inline std::wstring Widen(const std::string& s) {
  std::wstring wide;
  for (char c : s) wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
  return wide;
}
