// The operating-system calls that differ between macOS and Linux, and only
// those. Everything else in the library reaches the executable path, UUIDs,
// the user's passwd entry and volume sizes through these functions, so a port
// to another system touches platform.cpp alone.
//
// All functions are safe to call from any thread.
#pragma once

#include <cstddef>
#include <string>

// Longest executable path, including its terminating NUL, that
// ExecutablePath() can report; longer paths make it fail.
constexpr size_t kMaxExecutablePath = 1024;

// Puts the absolute path of the running executable in *out (macOS: as the
// loader reports it, possibly with symbolic links; Linux: resolved).
// Returns false, leaving *out untouched, when the path is unavailable or too
// long.
bool ExecutablePath(std::string* out);

// A new random (version 4) UUID in the 36-character lower-case text form,
// e.g. "1b4e28ba-2fa1-41d2-883f-0016d3cca427".
std::string RandomUUID();

// The passwd entry of the real user id.
struct UserAccount {
  std::string name;  // login name
  std::string home;  // home directory; empty when the entry has none
};

// Fills *out from the passwd entry of getuid(). Returns false, leaving *out
// untouched, when there is no such entry (common in containers).
bool CurrentUserAccount(UserAccount* out);

// Puts in *out the free bytes of the volume holding `path`: block size times
// all free blocks, the blocks kept for the superuser included. Returns false,
// leaving *out untouched, when the volume cannot be queried.
bool VolumeFreeBytes(const std::string& path, long long* out);
