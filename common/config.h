// A thread-safe registry of named settings whose values can be replaced from
// JSON documents.
#pragma once

#include <string>
#include <unordered_map>

#include "korvcache.h"
// By its own name: installed beside this header.
#include "thread_annotations.h"

// One registered setting.
struct _CONFIGURATION {
  std::string json_path;      // "/"-separated member path looked up by Config::Parse
  std::string value;          // current value as text; numbers in decimal
  std::string default_value;  // the value given at registration; informational only
};

// Settings by short name. Every operation holds the registry's mutex for its
// whole run, so each is atomic with respect to the others; any thread may
// call any of them. Texts are copied in and out.
class KORV_EXPORT Config {
 public:
  // An empty registry, then Parse(text).
  explicit Config(std::string text = std::string());
  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;
  virtual ~Config();

  // Gives every registered setting whose JSON path is present in the
  // document `text` the text form of the member found there (a string as
  // is, a number in decimal); the others keep their values. An empty `text`
  // does nothing.
  // Throws AERROR kErrJson when `text` is not JSON (nothing changes), and
  // jsoncpp's exception when a member has no text form (an array or object);
  // the settings visited before that keep their new values.
  void Parse(std::string text);

  // Registers `name`, or replaces all of its fields: path, value, and a
  // default equal to the value.
  void AddConfiguration(std::string name, std::string path, std::string value);
  // The same with `value` in decimal.
  void AddConfiguration(std::string name, std::string path, unsigned int value);

  // The current value of `name`. An unknown name gives "" and is left
  // registered with empty fields; as its path is then empty, later Parse
  // calls read the whole document as its value.
  std::string GetValue(std::string name);

 private:
  Mutex lock_;
  std::unordered_map<std::string, _CONFIGURATION> entries_ GUARDED_BY(lock_);
};
