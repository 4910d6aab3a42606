// Keeping what is written safe: every change is recorded in the journal
// before it reaches the cache, what a crashed run left is uploaded (or kept)
// at the start, and with write-back a close leaves the upload to a
// background thread.
#include <chrono>

#include "remote_drive.h"
#include "remote_file_io.h"
#include "write_recovery.h"

bool RemoteDrive::StartSaving(std::string* error) {
  journal_ = std::make_unique<WriteJournal>(options_.cache_dir, origin_.get());
  bool owner = false;
  if (!journal_->Open(&owner, error)) return false;
  // Another drive using the cache directory still owns the records there.
  if (owner) RecoverUnsavedWrites(origin_.get(), journal_.get());
  ListUnsavedFiles(options_.cache_dir);
  if (options_.write_back_seconds >= 0) {
    write_back_ = std::make_unique<WriteBack>(std::chrono::seconds(options_.write_back_seconds),
                                              [this](const std::shared_ptr<RemoteFile>& file) {
                                                return UploadInBackground(file);
                                              });
  }
  return true;
}

void RemoteDrive::StopSaving() {
  if (write_back_) write_back_->Stop();
}

int RemoteDrive::MakeWritable(RemoteFile* file) {
  return journal_ ? journal_->MakeWritable(file) : MakeRemoteFileWritable(file);
}

int RemoteDrive::Save(const std::shared_ptr<RemoteFile>& file) {
  // Once the bytes are on the disk (and recorded since their first change),
  // a crash loses nothing: the upload can wait.
  if (!write_back_ || !journal_->SyncLocalBytes(file.get())) return Upload(file.get());
  write_back_->Schedule(file);
  return 0;
}

int RemoteDrive::Sync(OpenHandle* handle) {
  if (!write_back_) return Flush(handle);
  if (!handle->writable || !handle->file) return 0;
  write_back_->Cancel(handle->file);
  // Waits for an upload under way; then nothing is left to upload, unless it failed.
  const int result = Upload(handle->file.get());
  if (result != 0) write_back_->Schedule(handle->file);
  return result;
}

int RemoteDrive::UploadInBackground(const std::shared_ptr<RemoteFile>& file) {
  const int result = Upload(file.get());
  // As at a release: a clean whole-file copy nobody has open is dropped.
  std::lock_guard<std::mutex> guard(files_lock_);
  if (!shut_down_ && file->opens == 0 && file->writable && !file->dirty) Forget(file);
  return result;
}
