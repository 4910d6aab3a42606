// The settings file a manager reads at start, beside the test program.
// Tests that use it run one at a time (a CTest resource lock).
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "common/process.h"

class SettingsFile {
 public:
  // Writes `contents` as the settings file; an empty text removes it.
  explicit SettingsFile(const std::string& contents) {
    std::remove(Path().c_str());
    if (contents.empty()) return;
    mkdir(GetResourcePath().c_str(), 0755);
    std::ofstream(Path()) << contents;
  }
  ~SettingsFile() { std::remove(Path().c_str()); }
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;

  static std::string Path() { return GetResourcePath() + "korv.ini"; }
};
