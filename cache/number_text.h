// Numbers inside log lines that are composed as text first.
#pragma once

#include <string>

// `value` in decimal, grouped as the user's locale groups digits (plain
// digits when the environment names no usable locale).
std::string LocaleNumber(long long value);
