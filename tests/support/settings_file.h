// The settings file a manager reads at start, beside the test program.
// Tests that use it run one at a time (a CTest resource lock).
#pragma once

#include <string>

class SettingsFile {
 public:
  // Writes `contents` as the settings file; an empty text removes it.
  explicit SettingsFile(const std::string& contents);
  ~SettingsFile();
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;

  static std::string Path();
};
