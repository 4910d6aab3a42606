// Saving what was written to a remote file: the upload to the origin, or,
// when even the last upload at unmount fails, a copy beside the cache.
#pragma once

#include <atomic>
#include <string>

#include "origin.h"
#include "remote_file.h"

// Uploads the file if it was written since its last upload; the unchanged
// parts of a file on the origin are fetched first, so that what is stored is
// whole. Returns 0, or -EIO with the written data kept in the cache (dirty)
// for the next try. A finished upload counts into `uploads`, before the file
// records the origin's new version: an open that stat'ed the origin meanwhile
// sees the count move and asks again instead of taking the upload for a
// change made elsewhere. The new version counts as confirmed at `clock`'s
// time before it was asked for.
// REQUIRES: not holding file->io_lock.
int UploadRemoteFile(Origin* origin, RemoteFile* file, std::atomic<long long>* uploads, const DriveClock& clock);

// Writes the file's contents to `cache_dir`/unsaved/<its path> and tells the
// user where they are (or that they are lost).
void KeepUnsavedCopy(const std::string& cache_dir, RemoteFile* file);
