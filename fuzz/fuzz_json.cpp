// Fuzzes the JSON wrapper and the settings registry built on it.
//
// The whole input is the document. Paths come from the document's own member
// names (so walks reach deep) and from the input's lines (so they also miss);
// edits through views are chosen by the input's bytes. Every walk is checked
// against a reference walk, and every edited document must print as JSON that
// reads back to the same text.
#include <json/json.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/config.h"
#include "common/json_object.h"

namespace {

void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz_json: %s\n", what);
    std::abort();
  }
}

// Paths reach the library as C strings: everything from a zero byte on is
// not part of them.
std::string AsCString(const std::string& s) { return s.substr(0, s.find('\0')); }

// The documented walk: names between "/" signs, empty ones skipped, objects
// only, exact names.
const Json::Value* ReferenceWalk(const Json::Value& root, const std::string& path) {
  const Json::Value* value = &root;
  size_t at = 0;
  while (at <= path.size()) {
    size_t next = path.find('/', at);
    if (next == std::string::npos) next = path.size();
    const std::string name = path.substr(at, next - at);
    if (!name.empty()) {
      if (!value->isObject() || !value->isMember(name)) return nullptr;
      value = &(*value)[name];
    }
    at = next + 1;
  }
  return value;
}

// Member paths of `value`, depth first, at most `limit` of them.
void CollectPaths(const Json::Value& value, const std::string& prefix, int depth, size_t limit,
                  std::vector<std::string>* out) {
  if (depth > 6 || !value.isObject()) return;
  for (const std::string& name : value.getMemberNames()) {
    if (out->size() >= limit) return;
    const std::string path = prefix + "/" + name;
    out->push_back(path);
    CollectPaths(value[name], path, depth + 1, limit, out);
  }
}

// Exercises every conversion; jsoncpp's refusals and malformed UTF-8 are the
// documented failures.
void Convert(const JsonObject& value) {
  try { (void)static_cast<std::string>(value); } catch (const Json::Exception&) {}
  try {
    (void)static_cast<std::wstring>(value);
  } catch (const Json::Exception&) {
  } catch (const std::range_error&) {
  }
  try { (void)static_cast<unsigned long long>(value); } catch (const Json::Exception&) {}
  try { (void)static_cast<long long>(value); } catch (const Json::Exception&) {}
  try { (void)static_cast<long>(value); } catch (const Json::Exception&) {}
  try { (void)static_cast<int>(value); } catch (const Json::Exception&) {}
  try { (void)static_cast<AERROR>(value); } catch (const Json::Exception&) {}
  try { (void)static_cast<double>(value); } catch (const Json::Exception&) {}
  try { (void)static_cast<bool>(value); } catch (const Json::Exception&) {}
  try { (void)value.GetArraySize(); } catch (const Json::Exception&) {}
  try { (void)value.GetKeys(); } catch (const Json::Exception&) {}
  (void)value.IsValid();
  (void)value.IsArray();
  (void)value.ToStyledText();
}

// The compact text of `doc` must read back to a document with the same text.
void CheckRoundTrip(const JsonObject& doc) {
  const std::string text = doc.ToText();
  std::string again;
  try {
    again = JsonObject(text.data(), static_cast<unsigned int>(text.size())).ToText();
  } catch (AERROR) {
    Check(false, "printed JSON does not read back");
  }
  Check(again == text, "printed JSON reads back as a different document");
}

// Parses `text`; null when it is not JSON, which only AERROR kErrJson may
// report.
std::unique_ptr<JsonObject> Parse(const std::string& text, bool zero_terminated) {
  try {
    if (zero_terminated) return std::make_unique<JsonObject>(text.c_str());
    return std::make_unique<JsonObject>(text.data(), static_cast<unsigned int>(text.size()));
  } catch (AERROR error) {
    Check(error == kErrJson, "parse threw an AERROR other than kErrJson");
    return nullptr;
  }
}

// Settings registered at `paths` take the document's values: all of them, or
// none when the text is not JSON; an empty text changes nothing.
void CheckRegistry(const std::string& text, JsonObject* doc, const std::vector<std::string>& paths) {
  Config registry;
  const size_t count = std::min<size_t>(paths.size(), 8);
  for (size_t i = 0; i < count; ++i) registry.AddConfiguration("s" + std::to_string(i), paths[i], "initial");
  enum { kApplied, kNotJson, kNoTextForm } outcome = kApplied;
  try {
    registry.Parse(text);
  } catch (AERROR error) {
    Check(error == kErrJson, "Config::Parse threw an AERROR other than kErrJson");
    outcome = kNotJson;
  } catch (const Json::Exception&) {
    outcome = kNoTextForm;  // a member that is an array or object
  }
  if (text.empty()) {
    Check(outcome == kApplied, "Config::Parse of an empty text failed");
  } else if (doc == nullptr) {
    Check(outcome == kNotJson, "Config::Parse accepted text that is not JSON");
  } else {
    Check(outcome != kNotJson, "Config::Parse refused a document");
  }
  if (outcome != kApplied) return;
  for (size_t i = 0; i < count; ++i) {
    const std::string value = registry.GetValue("s" + std::to_string(i));
    if (doc != nullptr && doc->HasObject(paths[i].c_str())) {
      Check(value == static_cast<std::string>(doc->GetObject(paths[i].c_str())),
            "a setting did not take the document's value");
    } else {
      Check(value == "initial", "a setting whose path is absent changed");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);

  std::unique_ptr<JsonObject> parsed = Parse(input, false);
  // The zero-terminated form reads up to the first zero byte and keeps
  // comments; for an input without zero bytes it must agree.
  std::unique_ptr<JsonObject> terminated = Parse(input, true);
  if (input.find('\0') == std::string::npos) {
    Check((parsed != nullptr) == (terminated != nullptr),
          "the two constructors disagree on whether the text is JSON");
    if (parsed) Check(parsed->ToText() == terminated->ToText(), "the two constructors read different documents");
  }
  terminated.reset();

  Json::Value root;
  if (parsed) Json::Reader().parse(input.data(), input.data() + input.size(), root, false);

  // Paths: member paths of the document, then the input's lines.
  std::vector<std::string> paths = {"", "/", "//"};
  CollectPaths(root, "", 0, 24, &paths);
  size_t at = 0;
  for (int lines = 0; lines < 8 && at < input.size(); ++lines) {
    size_t next = input.find('\n', at);
    if (next == std::string::npos) next = input.size();
    paths.push_back(input.substr(at, std::min<size_t>(next - at, 256)));
    at = next + 1;
  }
  for (std::string& path : paths) path = AsCString(path);

  CheckRegistry(input, parsed.get(), paths);
  if (!parsed) return 0;
  JsonObject& doc = *parsed;
  const std::string original = doc.ToText();
  CheckRoundTrip(doc);

  // Walks: agree with the reference, change nothing, and GetObject throws
  // exactly when HasObject says no.
  for (const std::string& path : paths) {
    Json::Value* expected = const_cast<Json::Value*>(ReferenceWalk(root, path));
    const bool has = doc.HasObject(path.c_str());
    Check(has == (expected != nullptr), "HasObject disagrees with the reference walk");
    try {
      JsonObject view = doc.GetObject(path.c_str());
      Check(has, "GetObject found a path HasObject denies");
      Check(view.ToText() == JsonObject(*expected).ToText(),
            "GetObject reached a different value than the reference walk");
      Convert(view);
    } catch (AERROR error) {
      Check(!has && error == kErrInvalidArgument, "GetObject threw for a path that is there");
    }
  }
  Check(doc.ToText() == original, "walking changed the document");
  Check(!doc.HasObject(nullptr), "a null path was found");

  // Edits through views, chosen by the input's bytes.
  const size_t edits = std::min<size_t>(size, 32);
  for (size_t i = 0; i < edits; ++i) {
    const uint8_t byte = data[(i * 7919) % size];
    const std::string& path = paths[(byte >> 3) % paths.size()];
    const size_t slash = path.rfind('/');
    const std::string key = slash == std::string::npos ? path : path.substr(slash + 1);
    try {
      if (!doc.HasObject(path.c_str())) continue;
      JsonObject view = doc.GetObject(path.c_str());
      switch (byte & 7) {
        case 0: view = "edited"; break;
        case 1:
          // Copies of the whole document double it; keep it small.
          if (doc.ToText().size() < 4096) Check(view.Insert(key.c_str(), doc.Copy()), "Insert of a copy failed");
          break;
        case 2: view.Remove(key.c_str()); break;
        case 3: Check(view.InsertArrayItem(std::string(1, static_cast<char>(byte))), "append failed"); break;
        case 4: view.RemoveArrayItem(byte % 4); break;
        case 5: view[key.c_str()] = "set"; break;
        case 6: view[static_cast<int>(byte % 3)] = "element"; break;
        case 7: {
          JsonObject detached = JsonObject::GetEmptyObject();
          detached = view;  // a deep copy of what the view refers to
          Check(detached.ToText() == view.ToText(), "assignment of a view copied something else");
          Check(view.Insert(key.c_str(), std::wstring(L"w\u00e9")), "Insert of a wide text failed");
          break;
        }
      }
    } catch (const Json::Exception&) {
      // jsoncpp refuses edits that do not fit the value's type.
    }
    CheckRoundTrip(doc);
  }
  return 0;
}
