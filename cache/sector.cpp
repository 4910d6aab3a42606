#include "cache/sector.h"

const char tempbuffer[kSectorSize] = {};
