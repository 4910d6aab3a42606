// Where a mounted volume's files really live: an HTTP server that answers
// Range requests, or a local directory. The client reads and writes remote
// files only through this interface.
//
// Thread safety: every operation may be called from many threads at once.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

enum class OriginStatus {
  kOk,
  kNotFound,     // no such file or directory (HTTP 404)
  kUnreachable,  // connection refused, reset or timed out: worth a retry
  kChanged,      // the file is no longer the one the caller expected
  kNotEmpty,     // a directory to be removed still holds entries
  kUnsupported,  // the origin cannot do this at all
  kFailed,       // any other answer the client cannot use (HTTP 416, 5xx, bad listing, ...)
};

const char* OriginStatusText(OriginStatus status);

// A status that a later attempt may turn into success.
inline bool IsTransient(OriginStatus status) { return status == OriginStatus::kUnreachable; }

struct OriginEntry {
  std::string name;  // last path component, never "." or ".."
  bool is_directory = false;
  long long size = 0;   // bytes; 0 for directories
  long long mtime = 0;  // seconds since the epoch, 0 when unknown
  // As OriginFileInfo::validator, when the listing tells one: empty when it
  // does not (nginx's JSON autoindex).
  std::string validator;
};

struct OriginFileInfo {
  bool is_directory = false;
  long long size = 0;
  long long mtime = 0;
  // Changes whenever the file's contents may have changed: the ETag or
  // Last-Modified of an HTTP origin, size and nanosecond mtime of a directory.
  // Only as fine as the origin's: nginx's ETag is size and mtime in whole
  // seconds, so a same-size rewrite within one second goes unnoticed.
  std::string validator;
};

// An HTTP validator that is an ETag ("..." or W/"...") rather than a date.
bool LooksLikeEtag(const std::string& validator);

// The version a listing entry describes.
OriginFileInfo VersionOf(const OriginEntry& entry);

// The version a file's cached copy is kept with from one run to the next:
// the validator, which is the origin's ETag, or size and modification time
// (a directory origin's, or an HTTP origin's Last-Modified, the size being
// compared by the cache itself); size and mtime where there is none.
std::string KeptVersionOf(const OriginFileInfo& info);

// True when `a` and `b` are the same version of a file. Validators of one
// kind are compared as they are; an ETag is compared with a Last-Modified
// date (a HEAD answers the one, a listing without ETags the other) through
// size and modification time, which is as fine as nginx's ETag.
bool SameVersion(const OriginFileInfo& a, const OriginFileInfo& b);

// Receives the bytes of a range as they arrive. Returning false stops the
// transfer; the read then fails with kFailed, unless the sink refused only
// after the last byte of the range had arrived.
using ByteSink = std::function<bool(const char* data, size_t length)>;

// Fills `buffer` with up to `length` bytes of the file being uploaded,
// starting at `offset`. Returns the count filled, or -1 on failure.
using ByteSource = std::function<long long(long long offset, char* buffer, size_t length)>;

class Origin {
 public:
  virtual ~Origin() = default;

  // The URL or directory, for messages.
  virtual std::string Describe() const = 0;

  // `path` always starts with "/"; "/" is the root directory.
  virtual OriginStatus List(const std::string& path, std::vector<OriginEntry>* entries,
                            std::string* error) = 0;
  virtual OriginStatus Stat(const std::string& path, OriginFileInfo* info, std::string* error) = 0;

  // Streams bytes [offset, offset + length) of `path` into `sink`, in order,
  // as they arrive. Fewer bytes than asked arrive only at the end of the file.
  // With a non-empty `validator`, a file whose validator differs is kChanged
  // and delivers nothing. On a transient failure part of the range may have
  // been delivered already; the caller resumes after it.
  virtual OriginStatus ReadRange(const std::string& path, long long offset, long long length,
                                 const std::string& validator, const ByteSink& sink,
                                 std::string* error) = 0;

  // Replaces (or creates) `path` with `size` bytes pulled from `source`.
  // Either the whole new file is stored or the old one stays.
  virtual OriginStatus Upload(const std::string& path, long long size, const ByteSource& source,
                              std::string* error) = 0;
  // As Upload, the stored file taking the modification time `mtime` (whole
  // seconds): how an origin that cannot set a file's time keeps one.
  // kUnsupported, with nothing stored, where an upload cannot carry a time.
  virtual OriginStatus UploadWithTime(const std::string& path, long long size, const ByteSource& source,
                                      long long mtime, std::string* error) {
    (void)path, (void)size, (void)source, (void)mtime;
    *error = "an upload cannot carry a time to this origin";
    return OriginStatus::kUnsupported;
  }

  // Removes the file `path`; kNotFound when there is none. Directories are
  // removed with RemoveDirectory.
  virtual OriginStatus Remove(const std::string& path, std::string* error) = 0;
  // Creates the directory `path`; its parent must exist. kFailed when `path`
  // exists already.
  virtual OriginStatus MakeDirectory(const std::string& path, std::string* error) = 0;
  // Removes the empty directory `path`; kNotEmpty when it holds anything.
  virtual OriginStatus RemoveDirectory(const std::string& path, std::string* error) = 0;
  // Moves the file or directory `from` to `to`, replacing a file at `to`.
  virtual OriginStatus Rename(const std::string& from, const std::string& to,
                              std::string* error) = 0;
  // Sets the modification time, where the origin can hold one: kUnsupported
  // where it cannot.
  virtual OriginStatus SetModificationTime(const std::string& path, long long mtime,
                                           std::string* error) = 0;
  // The origin's space, when it tells: false when it does not.
  virtual bool Space(long long* used, long long* available) = 0;
};

// True for http:// and https:// URLs.
bool IsHttpUrl(const std::string& text);

// An http:// or https:// URL becomes an HTTP origin; anything else names a directory.
// Returns null with `error` set when the origin cannot be used.
struct OriginOptions {
  long long latency_ms = 0;  // added before every request of a directory origin
  long long bandwidth = 0;   // bytes per second a directory origin delivers, 0 = unlimited
  long long timeout_ms = 15000;  // an HTTP request that stalls this long fails
  // Told, one line each, about listing entries an HTTP origin had to leave
  // out (names no file can have); may be called from many threads at once.
  // Empty: such entries are left out silently.
  std::function<void(const std::string&)> warn;
};
std::unique_ptr<Origin> MakeOrigin(const std::string& where, const OriginOptions& options,
                                   std::string* error);
