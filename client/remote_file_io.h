// Reads, writes and cuts of one remote file through its cache object, with
// the client's work-arounds for the writable cache: the origin's bytes of a
// sector a write or cut leaves partly covered are fetched first, and a fetch
// that failed fails the call instead of leaving zeros.
//
// Every function returns 0 (or a byte count) or a negative errno.
#pragma once

#include <memory>

#include "korvcache.h"
#include "remote_file.h"
#include "transfer_counters.h"

// A library read request of `size` bytes at `offset` into `buffer`.
_READDATA ReadRequest(char* buffer, long long offset, unsigned long long size, std::shared_ptr<_FS_HANDLE> handle,
                      long long file_size, IFetch* fetch);

// Switches the file's cache object to mode 'w' once; later calls do nothing.
int MakeRemoteFileWritable(RemoteFile* file);

// Reads stop at the file's size. Counts the bytes served into `drive` and the
// file's own counters, as served from the cache when no origin request ran
// meanwhile, and as served from what an earlier run kept when none was ever
// made for the file. A read of a writable file that needed origin bytes it could
// not get is -EIO rather than zeros.
long long ReadRemoteFile(RemoteFile* file, const std::shared_ptr<_FS_HANDLE>& handle, char* buffer, size_t size,
                         long long offset, TransferCounters* drive);

// REQUIRES: the file is writable (MakeRemoteFileWritable returned 0).
long long WriteRemoteFile(RemoteFile* file, const std::shared_ptr<_FS_HANDLE>& handle, const char* buffer,
                          size_t size, long long offset);
int TruncateRemoteFile(RemoteFile* file, long long size);
