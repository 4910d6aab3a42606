// Naming helpers shared by both cache file forms.
#pragma once

#include <string>

// True when `path` exists as a regular file or a directory.
bool IsFileOrDirectory(const std::string& path);

// The log tag of an origin name: names of the form "drive:path:..." are
// shown by their middle part; any other name as it is.
std::string TagFromName(const std::string& name);
