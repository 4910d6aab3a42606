// Calls the library's view of a client interface from a translation unit of
// its own, so the compiler cannot see the object's real declared type at the
// call (declared where abi_slots_test uses them).
#include <string>

#include "korvcache.h"

long long CallFetchSlot(IFetch* fetch, long long offset, long length) {
  return fetch->Fetch(offset, length, nullptr, nullptr);
}

std::string CallHandleInfoSlot(IFetch* fetch) { return fetch->HandleInfo(nullptr); }
