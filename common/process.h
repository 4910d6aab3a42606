// Process, user and path helpers for the library and its client: a
// millisecond stopwatch, UUID strings, running a shell command, a liveness
// test, and the paths a macOS application and its Finder Sync extension use.
//
// Every helper that returns text reports failure with an empty string; only
// pexec throws. None keeps state between calls, and all may be called from
// any thread.
#pragma once

#include <chrono>
#include <string>

#include "korvcache.h"

// A stopwatch in whole milliseconds. It reads the library's steady clock,
// so a test that moves that clock forward moves every Chrono with it.
// Not synchronised: one thread at a time per object.
class KORV_EXPORT Chrono {
 public:
  Chrono();
  virtual ~Chrono();

  // Restarts the stopwatch. Returns the new start time in nanoseconds on the
  // steady clock (an arbitrary epoch; only differences mean anything).
  long long reset();
  // Whole milliseconds since construction or the last reset(), truncated.
  long long elapsed() const;

 private:
  std::chrono::steady_clock::time_point start_;
};

// A new random UUID, 36 characters, lower case.
KORV_EXPORT std::string NewUUID();

// Runs `command` through /bin/sh and returns everything it wrote to standard
// output (standard error is not captured). Waits for the command to end; its
// exit status is ignored. Throws std::runtime_error("popen() failed!") when
// the command cannot be started (no pipe or process available).
KORV_EXPORT std::string pexec(std::string command);

// True when a process `pid` exists and this process may signal it. A process
// of another user can therefore read as not running.
KORV_EXPORT bool IsRunningPID(long long pid);

// The directory of the running executable, without a trailing "/".
KORV_EXPORT std::string GetCurrentPath();

// Reads the decimal digits of `n` as octal digits: 755 gives 493. Digits 8
// and 9 are accepted as they are (19 gives 17); a negative `n` gives the
// negated result.
KORV_EXPORT int octalToDecimal(int n);

// The login name of the real user.
KORV_EXPORT std::string GetUserName();

// True when the running executable's name ends with "FinderSync", i.e. this
// is the Finder Sync extension rather than the host application.
KORV_EXPORT bool IsFinderSync();

// The resource directory of the application bundle, ending with "/":
// "<executable dir>/../Resources", or four levels further up for the Finder
// Sync extension. Resolved to a canonical path when it exists; otherwise
// returned unresolved.
KORV_EXPORT std::string GetResourcePath();

// The user's home directory: from the passwd entry, else $HOME.
KORV_EXPORT std::string GetHomePath();

// "/Volumes/<name>_<login name>": where the drive named `name` is mounted.
KORV_EXPORT std::string GetOSXMountPath(std::string name);

// "<home>/Library/Application Support", without a trailing "/". Inside the
// sandboxed Finder Sync extension the home is its container, so the path is
// led back to the user's real home. The argument is unused.
KORV_EXPORT std::string GetAppDataPath(std::string unused);
