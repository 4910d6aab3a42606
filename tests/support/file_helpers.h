// Small file-system queries for tests.
#pragma once

#include <string>

// The whole file as bytes; empty when it cannot be read.
std::string FileContents(const std::string& path);
bool Exists(const std::string& path);
