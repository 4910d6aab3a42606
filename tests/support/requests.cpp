#include "support/requests.h"

std::shared_ptr<_FS_HANDLE> OpenHandle() {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->type = 1;
  handle->state = 1;
  handle->id = 1;
  return handle;
}

void CloseClientHandle(const std::shared_ptr<_FS_HANDLE>& handle) {
  __atomic_store_n(&handle->state, 3, __ATOMIC_RELAXED);
}

std::vector<char> Pattern(size_t size, char seed) {
  std::vector<char> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + static_cast<char>(i % 23));
  return bytes;
}

std::vector<char> OriginBytes(long long offset, long long size) {
  std::vector<char> bytes(static_cast<size_t>(size));
  FakeOrigin::Fill(bytes.data(), offset, size);
  return bytes;
}

_READDATA ReadRequest(std::vector<char>& buffer, long long offset, IFetch* fetch, long long file_size,
                      long long timeout_ms, bool whole_file) {
  return _READDATA{buffer.data(), offset, buffer.size(), 0, OpenHandle(), file_size, fetch, timeout_ms, whole_file};
}

_WRITEDATA WriteRequest(const std::vector<char>& data, long long offset, long long file_size, IFetch* fetch) {
  return _WRITEDATA{data.data(), offset, data.size(), 0, OpenHandle(), file_size, fetch};
}

AERROR ErrorThrownBy(const std::function<void()>& call) {
  try {
    call();
  } catch (AERROR error) {
    return error;
  }
  return kOk;
}
