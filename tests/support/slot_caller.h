// Calls the library's view of a client interface from a separate translation
// unit, so the compiler cannot see the object's real declared type at the call.
#pragma once

#include <string>

#include "korvcache.h"

long long CallFetchSlot(IFetch* fetch, long long offset, long length);
std::string CallHandleInfoSlot(IFetch* fetch);
