#include "common/config.h"

#include <utility>

#include "common/json_object.h"

Config::Config(std::string text) { Parse(std::move(text)); }

Config::~Config() = default;

void Config::Parse(std::string text) {
  if (text.empty()) return;
  MutexLock guard(lock_);
  JsonObject document(text.c_str(), static_cast<unsigned int>(text.size()));
  for (auto& entry : entries_) {
    _CONFIGURATION& setting = entry.second;
    if (document.HasObject(setting.json_path.c_str())) {
      setting.value = static_cast<std::string>(document.GetObject(setting.json_path.c_str()));
    }
  }
}

void Config::AddConfiguration(std::string name, std::string path, std::string value) {
  MutexLock guard(lock_);
  _CONFIGURATION& setting = entries_[name];
  setting.json_path = std::move(path);
  setting.default_value = value;
  setting.value = std::move(value);
}

void Config::AddConfiguration(std::string name, std::string path, unsigned int value) {
  AddConfiguration(std::move(name), std::move(path), std::to_string(value));
}

std::string Config::GetValue(std::string name) {
  MutexLock guard(lock_);
  // The subscript registers an unknown name with empty fields. That is
  // long-standing, visible behaviour (Parse then gives such a name the whole
  // document) and is kept.
  return entries_[name].value;
}
