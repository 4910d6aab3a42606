// The settings a manager uses when its settings file cannot be read.
#pragma once

#include "korvcache.h"

constexpr _CACHECONFIG kDefaultCacheConfig = {
    3,          // rahit: reads in the history before read-ahead starts
    1048576,    // ramin: 1 MiB
    268435456,  // ramax: 256 MiB
    60000,      // readtimeout: ms
    536870912,  // readfetchmax: 512 MiB
    30000,      // clrperiod: ms
    60,         // clrused: s
    3600,       // clrunused: s
    30,         // clroverused: s
    60,         // clroverunused: s
};
