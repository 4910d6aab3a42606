#include "support/slot_caller.h"

long long CallFetchSlot(IFetch* fetch, long long offset, long length) {
  return fetch->Fetch(offset, length, nullptr, nullptr);
}

std::string CallHandleInfoSlot(IFetch* fetch) { return fetch->HandleInfo(nullptr); }
