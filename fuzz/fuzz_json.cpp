// Fuzzes the JSON wrapper.
//
// The whole input is the document. Whatever it holds, parsing fails only with
// AERROR kErrJson (nesting past the reader's depth limit included); both
// constructors read the same document; an ASCII document prints as JSON that
// reads back the same; GetObject throws kErrInvalidArgument exactly where HasObject
// says no, and walking changes nothing.
// Paths are the document's own member paths (so walks reach deep) and the
// input's lines (so they also miss).
#include <json/json.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/json_object.h"
#include "common/split.h"
#include "fuzz_check.h"

namespace {

// Null when the text is not JSON, which only AERROR kErrJson may report.
std::unique_ptr<JsonObject> Parse(const std::string& text, bool zero_terminated) {
  try {
    if (zero_terminated) return std::make_unique<JsonObject>(text.c_str());
    return std::make_unique<JsonObject>(text.data(), static_cast<unsigned int>(text.size()));
  } catch (AERROR error) {
    Check(error == kErrJson, "parse threw an AERROR other than kErrJson");
    return nullptr;
  }
}

// Member paths below `path`, depth first, at most 24 in all.
void CollectPaths(JsonObject& doc, const std::string& path, int depth, std::vector<std::string>* out) {
  std::vector<std::string> names;
  try {
    if (depth <= 6) names = doc.GetObject(path.c_str()).GetKeys();
  } catch (const Json::Exception&) {
    return;  // not an object
  }
  for (const std::string& name : names) {
    if (out->size() >= 24 || name.find('/') != std::string::npos || name.find('\0') != std::string::npos) continue;
    const std::string child = path + "/" + name;  // not a reference into `out`, which may grow
    out->push_back(child);
    CollectPaths(doc, child, depth + 1, out);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<JsonObject> doc = Parse(input, false);
  // The zero-terminated form reads up to the first zero byte and keeps
  // comments; for an input without zero bytes it must agree.
  std::unique_ptr<JsonObject> terminated = Parse(input, true);
  if (input.find('\0') == std::string::npos) {
    Check((doc == nullptr) == (terminated == nullptr), "the two constructors disagree on whether it is JSON");
    Check(doc == nullptr || doc->ToText() == terminated->ToText(), "the two constructors read different documents");
  }

  std::vector<std::string> paths = {"", "/", "//"};
  if (doc != nullptr) CollectPaths(*doc, "", 0, &paths);
  std::vector<std::string> lines = split(input, '\n');
  for (size_t i = 0; i < lines.size() && i < 8; ++i) paths.push_back(lines[i].substr(0, 256).c_str());

  if (doc == nullptr) return 0;

  const std::string original = doc->ToText();
  // jsoncpp prints bytes that are not UTF-8 as escapes that read back as
  // other text (or not at all): only ASCII documents must survive unchanged.
  if (std::all_of(input.begin(), input.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    std::unique_ptr<JsonObject> again = Parse(original, false);
    Check(again != nullptr && again->ToText() == original, "printed JSON does not read back the same");
  }
  for (const std::string& path : paths) {
    const bool has = doc->HasObject(path.c_str());
    try {
      JsonObject view = doc->GetObject(path.c_str());
      Check(has, "GetObject found a path HasObject denies");
      (void)static_cast<std::wstring>(view);  // jsoncpp's refusals and malformed UTF-8 are the failures
    } catch (AERROR error) {
      Check(!has && error == kErrInvalidArgument, "GetObject threw for a path that is there");
    } catch (const Json::Exception&) {
    } catch (const std::range_error&) {
    }
  }
  Check(doc->ToText() == original && !doc->HasObject(nullptr), "walking changed the document");
  return 0;
}
