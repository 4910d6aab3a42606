#include "cache/cache_obj.h"

#include "cache/logging.h"
#include "cache/readonly_cache.h"
#include "cache/writable_cache.h"

CacheObj::CacheObj(std::string directory, std::string file_name, char mode, long long size, IFetch* fetch,
                   ICacheConfig* config, std::string hash_index, std::shared_ptr<ICacheConfig> config_owner,
                   std::string version)
    : directory_(std::move(directory)),
      config_owner_(std::move(config_owner)),
      config_(config),
      file_name_(std::move(file_name)),
      hash_index_(std::move(hash_index)),
      version_(std::move(version)) {
  KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] Create cache for %s:%c", file_name_.c_str(), mode);
  MutexLock guard(lock_);
  CreateFile(mode, size, fetch);
}

CacheObj::CacheObj(std::string directory, std::string file_name, FoundFile found, ICacheConfig* config,
                   std::shared_ptr<ICacheConfig> config_owner)
    : directory_(std::move(directory)),
      config_owner_(std::move(config_owner)),
      config_(config),
      file_name_(std::move(file_name)),
      hash_index_(found.index.name),
      version_(found.index.version) {
  MutexLock guard(lock_);
  file_ = std::make_shared<ReadonlyCache>(directory_, file_name_, std::move(found), config_);
}

CacheObj::~CacheObj() {
  MutexLock guard(lock_);
  if (!file_) return;
  KeepSetting* setting = KeepSettingOf(config_);
  auto* sectors = dynamic_cast<ReadonlyCache*>(file_.get());
  if (sectors == nullptr || setting == nullptr || !setting->KeepFiles() || !sectors->Keep(hash_index_, version_)) {
    file_->Close(true);
  }
  file_.reset();
}

void CacheObj::ReuseFor(long long size, const std::string& version) {
  MutexLock guard(lock_);
  auto* sectors = dynamic_cast<ReadonlyCache*>(file_.get());
  if (sectors != nullptr) sectors->ReuseFor(size, version == version_);
  version_ = version;
}

void CacheObj::CreateFile(char mode, long long size, IFetch* fetch) {
  if (mode == 'w') {
    file_ = std::make_shared<WritableCache>(directory_, file_name_, size, fetch, config_);
  } else if (mode == 'r') {
    file_ = std::make_shared<ReadonlyCache>(directory_, file_name_, size, config_);
  } else {
    throw static_cast<AERROR>(kErrInvalidMode);
  }
}

std::shared_ptr<ICacheFile> CacheObj::CurrentFile() {
  MutexLock guard(lock_);
  return file_;
}

unsigned int CacheObj::Read(_READDATA* request) {
  std::shared_ptr<ICacheFile> file = CurrentFile();
  if (!file) return kErrInvalidArgument;
  return file->Read(request);
}

unsigned int CacheObj::Write(_WRITEDATA* request) {
  std::shared_ptr<ICacheFile> file = CurrentFile();
  if (!file || request == nullptr) return kErrInvalidArgument;
  unsigned int result = file->Write(request);
  request->file_size = file->GetFileSize();
  return result;
}

unsigned int CacheObj::SetMode(char mode, long long size, IFetch* fetch) {
  if (mode != 'r' && mode != 'w') {
    KORV_LOG(LOGLEVEL_ERROR, "[CACHE     ] %s : Invalid cache mode", "SetMode");
    return kErrInvalidMode;
  }
  // Declared before the lock, so released after it: the old file's
  // destruction waits for its fetch tasks, which must not hold up the
  // threads that only look at this object.
  std::shared_ptr<ICacheFile> old_file;
  MutexLock guard(lock_);
  if (!file_) {
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %s : Cache was not created. Create new cache for %s", "SetMode",
             file_name_.c_str());
    CreateFile(mode, size, fetch);
    return kOk;
  }
  const bool want_readonly = mode == 'r';
  if (file_->IsReadonly() == want_readonly) return kOk;
  if (want_readonly) {
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %s : Writable cache found. Change to read-only cache.", "SetMode");
  } else {
    KORV_LOG(LOGLEVEL_INFO, "[CACHE     ] %s : Read-only cache found. Change to writable cache.", "SetMode");
  }
  // The old file goes when its last reference does, possibly after a read
  // running on another thread has finished with it.
  old_file = file_;
  CreateFile(mode, size, fetch);
  return kOk;
}

// These run on a reference to the current file, as reads and writes do, not
// under the object's lock: a call that waits for the origin (a fetch of the
// holes, a cut behind a hung read) must not hold up the quota thread or the
// manager on this object.
unsigned int CacheObj::Reserve(long long offset, long long length) {
  std::shared_ptr<ICacheFile> file = CurrentFile();
  return file ? file->Reserve(offset, length) : kErrInvalidArgument;
}

unsigned int CacheObj::ClearReserved(long long offset, long long length) {
  std::shared_ptr<ICacheFile> file = CurrentFile();
  return file ? file->ClearReserved(offset, length) : kErrInvalidArgument;
}

unsigned int CacheObj::Truncate(long long size) {
  std::shared_ptr<ICacheFile> file = CurrentFile();
  return file ? file->Truncate(size) : kErrInvalidArgument;
}

unsigned int CacheObj::FillEmptySectors(IFetch* fetch) {
  std::shared_ptr<ICacheFile> file = CurrentFile();
  return file ? file->FillEmptySectors(fetch) : kErrInvalidArgument;
}

std::string CacheObj::GetHashIndex() {
  MutexLock guard(lock_);
  return hash_index_;
}

void CacheObj::SetHashIndex(const char* hash_index) {
  MutexLock guard(lock_);
  hash_index_ = hash_index != nullptr ? hash_index : "";
}

unsigned int CacheObj::Close(bool force) {
  std::shared_ptr<ICacheFile> file;
  {
    MutexLock guard(lock_);
    if (!file_) return kErrNotOpen;
    file = file_;
    if (force) file_.reset();
  }
  // Outside the lock: closing waits for the file's fetch tasks.
  return file->Close(force);
}

bool CacheObj::IsReadOnly() {
  MutexLock guard(lock_);
  return file_ ? file_->IsReadonly() : false;
}

long long CacheObj::GetFileSize() {
  MutexLock guard(lock_);
  return file_ ? file_->GetFileSizeForQuota() : 0;
}

bool CacheObj::CheckHandles() {
  MutexLock guard(lock_);
  return file_ ? file_->CheckHandles() : false;
}

void CacheObj::ClearOldCache(bool over_quota) {
  MutexLock guard(lock_);
  if (file_) file_->ClearOldCache(over_quota);
}

std::vector<SectorAge> CacheObj::SectorAges() {
  MutexLock guard(lock_);
  auto* sectors = dynamic_cast<ReadonlyCache*>(file_.get());
  return sectors != nullptr ? sectors->SectorAges() : std::vector<SectorAge>();
}

void CacheObj::DropReadBefore(SteadyTime cutoff) {
  MutexLock guard(lock_);
  auto* sectors = dynamic_cast<ReadonlyCache*>(file_.get());
  if (sectors != nullptr) sectors->DropReadBefore(cutoff);
}

void CacheObj::ChangeFileName(std::string new_name) {
  MutexLock guard(lock_);
  if (!file_) return;
  file_name_ = new_name;
  file_->ChangeFileName(std::move(new_name));
}

void CacheObj::SaveIndex() {
  MutexLock guard(lock_);
  auto* sectors = dynamic_cast<ReadonlyCache*>(file_.get());
  if (sectors != nullptr) sectors->WriteIndex(hash_index_, version_);
}
