// korvcache: a local disk cache for the file contents of a remote-drive client.
//
// This is the only header a client includes. It declares the records that
// cross the library boundary, the interfaces the client implements (IFetch,
// IAsyncQueue, ILog) and the ones the library implements (ICache_V2,
// ICacheObj, ...), the status codes and the exported entry points.
//
// The order of the virtual operations in every interface below is the order
// of their slots in the dispatch table. Clients built against earlier copies
// of this header depend on it: never reorder, insert or remove a virtual.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#if defined(_WIN32)
#define KORV_EXPORT
#else
#define KORV_EXPORT __attribute__((visibility("default")))
#endif

// The library's error type: one status code, thrown by value, only by
// constructors. Everything else returns status codes as unsigned numbers.
using AERROR = uint32_t;

// Status codes. 0 is success; every other value is listed here by name.
constexpr AERROR kOk = 0;
constexpr AERROR kErrInvalidArgument = 4;    // no request, null argument, object without a cache file
constexpr AERROR kErrReadOnly = 8;           // write or truncate refused by a read-only cache
constexpr AERROR kErrRead = 10;              // no stream, sector missing, read time-out
constexpr AERROR kErrHandleClosed = 29;      // client's handle closed while a read waited
constexpr AERROR kErrLimitTooSmall = 3001;   // storage limit below 64 MiB
constexpr AERROR kErrInvalidMode = 3002;     // cache mode other than 'r' or 'w'
constexpr AERROR kErrCacheDirectory = 3003;  // cache directory cannot be created
constexpr AERROR kErrCreateFile = 3004;      // writable cache file cannot be created
constexpr AERROR kErrNotOpen = 3005;         // close found no stream; rehash of an unknown name
constexpr AERROR kErrUnaligned = 3006;       // fetch write or reservation not sector aligned
constexpr AERROR kErrFileWrite = 3007;       // seek, write or truncate of a local file failed
constexpr AERROR kErrFileRead = 3008;        // seek or read of a local file failed
constexpr AERROR kFetchQueued = 3013;        // informational: fetches were queued
constexpr AERROR kNothingReserved = 3014;    // a reservation found every sector present
constexpr AERROR kErrJson = 6001;            // a JSON document or value could not be applied

// Log levels are bits so that a logger can filter with a mask.
enum LOGLEVEL {
  LOGLEVEL_DEBUG = 1,    // sector bookkeeping, fetch writes, configuration dumps
  LOGLEVEL_INFO = 2,     // caches created, closed, rehashed; mode changes
  LOGLEVEL_WARNING = 4,  // forced conversions, vanished cache files
  LOGLEVEL_ERROR = 8,    // invalid mode, failed creation or open, failed fetches
};

// The client's file-system handle. Shared so that a queued fetch keeps it
// alive until the fetch ends. The library reads only `state` and copies
// `info` between handles; the rest is the client's.
struct _FS_HANDLE {
  int32_t type;   // 2 in handles the cache makes for its own whole-file fetches
  // Greater than 2: the client has closed the handle. Reads still running
  // poll it, so once the handle is in use the client changes it with an
  // atomic store, e.g. __atomic_store_n(&h->state, 3, __ATOMIC_RELAXED).
  int32_t state;
  int64_t id;     // 0 in handles the cache makes
  std::string info;
};

class IFetch;

// One read request; the caller owns it and its buffer.
struct _READDATA {
  char* buffer;
  long long offset;
  unsigned long long size;
  unsigned long long transferred;  // out: bytes delivered
  std::shared_ptr<_FS_HANDLE> handle;
  long long file_size;  // the origin file's size; caps fetch ranges
  IFetch* fetch;        // null: serve only what is cached
  long long timeout;    // ms; 0 takes the read time-out setting, negative waits for ever
  bool whole_file;      // fetch the whole file as one block
};

// One write request; the caller owns it and its buffer.
struct _WRITEDATA {
  const char* buffer;
  long long offset;
  unsigned long long size;
  unsigned long long transferred;  // out: bytes written
  std::shared_ptr<_FS_HANDLE> handle;
  long long file_size;  // in: whole file's size; out: the cache file's size after the write
  IFetch* fetch;        // null: holes are not filled
};

// The ten tunable settings, in this order. Returned by value.
struct _CACHECONFIG {
  uint64_t rahit;          // reads in the history before read-ahead starts
  uint64_t ramin;          // smallest read-ahead block, bytes
  uint64_t ramax;          // largest read-ahead block, bytes
  uint64_t readtimeout;    // ms a read waits for fetched data
  uint64_t readfetchmax;   // largest single origin request, bytes
  uint64_t clrperiod;      // ms between clearing passes
  uint64_t clrused;        // s before a used sector may be cleared
  uint64_t clrunused;      // s before any sector may be cleared
  uint64_t clroverused;    // clrused while over the storage limit
  uint64_t clroverunused;  // clrunused while over the storage limit
};

// Implemented by whoever stores fetched bytes (the cache files). The fetcher
// calls it before its Fetch returns. Not deleted through this interface.
class IFetchCallback {
 public:
  // Stores `length` bytes at file offset `offset`; the count stored is put in
  // *written when it is not null. Returns a status code.
  virtual int FetchWrite(long long offset, const char* data, long length, long* written) = 0;

 protected:
  ~IFetchCallback() = default;
};

// Implemented by the client: brings ranges of one remote file.
class IFetch {
 public:
  // Brings [offset, offset + length) and delivers it through
  // callback->FetchWrite before returning. Low 32 bits of the result: 0 on
  // success, non-zero on failure. May be called from queue threads.
  virtual long long Fetch(long long offset, long length, std::shared_ptr<_FS_HANDLE> handle,
                          IFetchCallback* callback) = 0;
  // Text the writable cache stores in handles it makes for its own fetches.
  virtual std::string HandleInfo(_FS_HANDLE* handle) = 0;

 protected:
  ~IFetch() = default;
};

// A unit of work for the client's asynchronous queue. The queue calls exactly
// one of Process or Canceled, once; the work item then deletes itself.
class IAsyncObj {
 public:
  virtual void Process(void* param) = 0;
  virtual void Canceled(void* param) = 0;
  virtual ~IAsyncObj() = default;
};

// Implemented by the client: runs work items on threads of its own.
class IAsyncQueue {
 public:
  // Never called by the library; keeps Enqueue in the second slot.
  virtual void Reserved() {}
  // Called with the library's queue lock held: must not call back into the
  // library's queueing. Nor may it run or cancel `work` before it returns:
  // Enqueue can be called with the cache's own index lock held, which
  // `work`'s Process and Canceled take, so either would deadlock. A queue
  // that refuses work calls Canceled later, from another thread.
  virtual void Enqueue(IAsyncObj* work, void* param) = 0;

 protected:
  ~IAsyncQueue() = default;
};

// Implemented by the client: receives every log line.
class ILog {
 public:
  virtual ~ILog() = default;
  // `format` is printf-style; the logger formats, stamps and filters itself.
  virtual void Write(LOGLEVEL level, const char* format, va_list args) = 0;
};

// Reads and writes of one cached file.
class ICacheIO {
 public:
  // Returns: kOk, kErrInvalidArgument, kErrRead, kErrHandleClosed, kErrFileRead.
  virtual unsigned int Read(_READDATA* request) = 0;
  // Returns: kOk, kErrInvalidArgument, kErrReadOnly, kErrFileWrite.
  virtual unsigned int Write(_WRITEDATA* request) = 0;

 protected:
  ~ICacheIO() = default;
};

// The cache object of one file, as handed out by ICache_V1::Open.
class ICacheObj : public ICacheIO {
 public:
  // Switches between read-only ('r') and writable ('w') caching.
  // Returns: kOk, kErrInvalidMode.
  virtual unsigned int SetMode(char mode, long long size, IFetch* fetch) = 0;
  virtual unsigned int Reserve(long long offset, long long length) = 0;
  virtual unsigned int ClearReserved(long long offset, long long length) = 0;
  virtual unsigned int Truncate(long long size) = 0;
  virtual unsigned int FillEmptySectors(IFetch* fetch) = 0;
  virtual std::string GetHashIndex() = 0;
  virtual unsigned int Close(bool force) = 0;
  virtual ~ICacheObj() = default;
  virtual void SetHashIndex(const char* hash_index) = 0;
};

// The cache manager of one cache directory.
class ICache_V1 {
 public:
  virtual unsigned long long GetLimit() = 0;
  // The disk bytes (allocated blocks) the cache files of this manager's
  // objects hold, counted as they are stored and dropped.
  virtual unsigned long long GetUsedBytes() = 0;
  // Returns: kOk, kErrLimitTooSmall.
  virtual unsigned int SetLimit(unsigned long long bytes) = 0;
  // Throws AERROR kErrInvalidMode, kErrCreateFile.
  virtual std::shared_ptr<ICacheObj> Open(const char* name, char mode, long long size,
                                          IFetch* fetch) = 0;
  virtual unsigned int Close(const char* name) = 0;
  // Returns: kOk, kErrNotOpen.
  virtual unsigned int Rehash(const char* old_name, const char* new_name,
                              const char* hash_index) = 0;
  // Applies a JSON settings document. Returns: kOk, kErrInvalidArgument, kErrJson.
  virtual unsigned int SetConfiguration(const char* text) = 0;

 protected:
  ~ICache_V1() = default;
};

// Keeping the cache across runs. Off by default: every cache file is deleted
// when its object closes, and a manager that starts removes the sector files
// an earlier run left. The JSON setting {"cache": {"keep": 1}} (applied with
// SetConfiguration right after InitCache; there is no INI key) turns it on:
// - A read-only object keeps its file at the end of the run (ReleaseCache,
//   or Close(name) of an object nobody else holds, or the last reference of
//   one a client held going) and writes an index beside it: the name it was
//   opened under (its hash index), the origin's size, the version the client
//   gave (see OpenVersion), every sector with a checksum of its bytes, and a
//   checksum of the index itself. The index is written last and atomically
//   and removed before the file is next written, so a run that does not end
//   cleanly leaves a file without an index, which the next start deletes, as
//   it deletes a file whose index is damaged (with a warning).
// - The next InitCache of the directory finds the kept files: they count in
//   GetUsedBytes at once and are cleared by age like any other, by the last
//   read times they were kept with. OpenVersion (or Open, version "") of the
//   same name with mode 'r', the same size and the same version serves their
//   sectors again, each checked against its checksum when first read (one
//   that fails is fetched again, never served); another size or version
//   drops them first, and mode 'w' deletes the file.
// - Closing an object with ICacheObj::Close(true), switching its mode or
//   replacing it by Rehash still deletes its file.
class ICache_V2 : public ICache_V1 {
 public:
  virtual ~ICache_V2() = default;
  // Slots appended after the destructor's.

  // Open, handing the origin's version as the client knows it (an ETag, or
  // size and modification time; null counts as ""). It is stored with a kept
  // file, and a kept file of another version is not served (see above). An
  // object already open is returned as it is, whatever its version: close it
  // first to open another version. Throws as Open.
  virtual std::shared_ptr<ICacheObj> OpenVersion(const char* name, char mode, long long size, IFetch* fetch,
                                                 const char* version) = 0;
};

// The manager's settings, as seen by the cache files.
class ICacheConfig {
 public:
  virtual unsigned long long GetQuota() = 0;
  virtual _CACHECONFIG GetConfig() = 0;

 protected:
  ~ICacheConfig() = default;
};

// One cache file: a read-only sector cache or a writable whole-file cache.
class ICacheFile {
 public:
  virtual unsigned int Read(_READDATA* request) = 0;
  virtual unsigned int Write(_WRITEDATA* request) = 0;
  virtual unsigned int Reserve(long long offset, long long length) = 0;
  virtual unsigned int ClearReserved(long long offset, long long length) = 0;
  virtual unsigned int Close(bool remove) = 0;
  virtual unsigned int Truncate(long long size) = 0;
  virtual bool IsReadonly() = 0;
  // Each returns a new cache file owned by the caller, or null.
  virtual ICacheFile* RebuildToWritableCache(IFetch* fetch, ICacheConfig* config) = 0;
  virtual ICacheFile* RebuildToReadonlyCache(IFetch* fetch, ICacheConfig* config) = 0;
  virtual void ClearOldCache(bool over_quota) = 0;
  virtual long long GetFileSize() = 0;
  virtual long long GetFileSizeForQuota() = 0;
  virtual long long GetLargestEmptyOffset(long long offset) = 0;
  virtual unsigned int FillEmptySectors(IFetch* fetch) = 0;
  virtual void ChangeFileName(std::string new_name) = 0;
  virtual bool CheckHandles() = 0;
  virtual ~ICacheFile() = default;
};

extern "C" {

// Creates (or finds) the manager of the cache directory `path`, keyed by the
// exact string. Returns kOk or the AERROR of the manager's construction.
KORV_EXPORT unsigned int InitCache(const char* path, unsigned long long limit, ICache_V2** cache);
// Destroys the manager of `path`; the pointer from InitCache dangles
// afterwards. Returns kOk, also for an unknown path.
KORV_EXPORT unsigned int ReleaseCache(const char* path);

// Binds the client's queue; null returns false and keeps an earlier binding.
KORV_EXPORT bool Cache_BindAsyncQ(IAsyncQueue* queue);
KORV_EXPORT void Cache_UnbindAsyncQ();
// Binds the client's logger; null returns false and keeps an earlier binding.
// A logger must stay alive until it is unbound and no library call is in flight.
KORV_EXPORT bool Cache_BindLogger(ILog* log);
KORV_EXPORT void Cache_UnbindLogger();

// Hands `work` to the bound queue, or runs work->Process at once on this
// thread when none is bound (a null `param` then becomes the marker 1).
KORV_EXPORT void QueueAsync(IAsyncObj* work, void* param);

}  // extern "C"
