// The library's one path to the client's logger.
//
// Every message starts with the tag "[CACHE     ] "; lines about one cache
// file go on with "[%s] " and the file's name. The library does no
// formatting, filtering or time-stamping of its own: the bound ILog does.
#pragma once

#include "korvcache.h"

// The bound logger, or null. Read without the binding lock: a client must
// keep its logger alive until it has unbound it and no call is in flight.
ILog* CurrentLogger();

// Hands one line to `log` (nothing when it is null). The format attribute
// makes the compiler check every call's arguments against its format.
void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Logs through the currently bound logger.
#define KORV_LOG(level, ...) __LOG__A(CurrentLogger(), (level), __VA_ARGS__)
