// One warning for each operation and path a volume refuses (a link, a time
// the origin cannot hold, a directory not empty, a move across volumes...):
// a user whose tool failed sees why, and a tool that retries in a loop does
// not flood the log.
#pragma once

#include <string>

// Passes `result` (0 or a negative errno) through; a refusal is told once
// per operation and path, at the warning level.
int TellRefusal(const char* operation, const std::string& path, int result);
