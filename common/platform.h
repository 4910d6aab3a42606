// The operating-system calls that differ between macOS and Linux, and only
// those. Everything else in the library reaches the executable path, UUIDs,
// the user's passwd entry and volume sizes through these functions, so a port
// to another system touches platform.cpp alone.
//
// All functions are safe to call from any thread.
#pragma once

#include <cstddef>
#include <string>

struct stat;

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

// Paths resolved beneath a directory: `path` is relative to the directory
// open as `root_fd` ("" or "." is that directory) and may not leave it, by
// "..", an absolute path or a symbolic link (such attempts fail with EXDEV,
// ELOOP or ENOTDIR). A client serving a directory to others uses these so
// that a link planted inside cannot expose the rest of the system.
//
// Opens `path` with open(2) `flags` and `mode`; returns the descriptor, or -1
// with errno set. Linux resolves with openat2(RESOLVE_BENEATH |
// RESOLVE_NO_MAGICLINKS), which follows links that stay beneath the root;
// where openat2 is missing, and on macOS, OpenBeneathByWalk.
int OpenBeneath(int root_fd, const std::string& path, int flags, unsigned mode = 0);
// The portable way: one component at a time with O_NOFOLLOW, refusing ".."
// and every symbolic link.
int OpenBeneathByWalk(int root_fd, const std::string& path, int flags, unsigned mode = 0);
// Opens the directory holding `path` beneath the root (as OpenBeneath) and
// puts the last component in *name, for the *at(2) calls that act on a name
// without following it. Fails with EINVAL when that component is empty, "."
// or "..".
int OpenParentBeneath(int root_fd, const std::string& path, std::string* name);
// stat(2) of `path` beneath the root, resolved as OpenBeneath does, without
// opening the file itself for reading. Returns false with errno set.
bool StatBeneath(int root_fd, const std::string& path, struct stat* st);

// The used and available bytes of the volume holding `path`, as statvfs(3)
// tells them to an unprivileged user. Returns false when it cannot be asked.
bool VolumeSpace(const std::string& path, long long* used, long long* available);

// Puts the bytes written to the open file `fd` on stable storage: fsync
// (macOS: F_FULLFSYNC, as its fsync leaves them in the drive's cache).
// Returns false with errno set.
bool SyncToDisk(int fd);
// Makes the entries of `directory` (a rename or removal in it) durable.
// Returns false with errno set.
bool SyncDirectory(const std::string& directory);
