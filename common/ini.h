// A reader of INI settings files, and the whitespace trim it uses.
//
// The functions keep no state and may run on any thread. Lookups open and
// read the file afresh on every call.
//
// File syntax, as understood here:
//  - A section starts at a line "[name]"; section names and keys are matched
//    without regard to ASCII case, and blanks inside the brackets are ignored.
//    Only the first section of the wanted name is searched.
//  - Inside a section, "key=value" lines. Nothing around the "=" is trimmed,
//    so "key = value" does not define "key" (it defines "key "). Text after
//    a second "=" is dropped. A line with nothing after the "=" is ignored.
//  - A line starting with "[" ends the section. Comments and quotes have no
//    syntax: lines without "=" are skipped, quotes belong to the value.
//  - Lines are read in pieces of at most 2047 bytes: a longer physical line
//    is taken as several lines.
#pragma once

#include <string>

#include "korvcache.h"

// Removes trailing, then leading, whitespace (blank, tab, newline, carriage
// return, vertical tab, form feed) from `s` in place and returns `s`. Bytes
// at or above 0x80 are never whitespace.
KORV_EXPORT std::string& trim(std::string& s);

// Looks up `key` in `section` of `file` and copies its value with a
// terminating zero into `buffer`, which holds `size` bytes. A value is copied
// only when it is shorter than `size`; one that does not fit counts as not
// found. When the key is not found (or the file cannot be read),
// `defaultValue` is copied instead if it is shorter than `size`; otherwise
// `buffer` is left untouched.
// Returns the number of characters copied, without the zero; 0 when nothing
// was copied, and at once, without reading the file, when `buffer` is null
// or `size` is 0.
KORV_EXPORT int GetPrivateProfileString(std::string section, std::string key,
                                        std::string defaultValue, char* buffer, int size,
                                        std::string file);

// Looks up `key` in `section` of `file` and converts its value as atoi does
// (leading blanks skipped, digits up to the first non-digit, no digits give
// 0, a negative number wraps to its unsigned form).
// Returns `defaultValue` only when the file cannot be opened; a readable file
// without the key gives 0.
KORV_EXPORT unsigned int GetPrivateProfileInt(std::string section, std::string key,
                                              unsigned int defaultValue, std::string file);
