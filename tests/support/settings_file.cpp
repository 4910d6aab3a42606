#include "support/settings_file.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "common/process.h"

std::string SettingsFile::Path() { return GetResourcePath() + "korv.ini"; }

SettingsFile::SettingsFile(const std::string& contents) {
  std::remove(Path().c_str());
  if (contents.empty()) return;
  mkdir(GetResourcePath().c_str(), 0755);
  std::ofstream out(Path());
  out << contents;
}

SettingsFile::~SettingsFile() { std::remove(Path().c_str()); }
