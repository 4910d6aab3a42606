#include "common/json_object.h"

#include <codecvt>
#include <locale>

#include "common/ini.h"
#include "common/split.h"

namespace {

// std::wstring_convert is deprecated since C++17 without a standard
// replacement. It stays for the behaviour the wide conversions promise:
// std::range_error on malformed input and code points up to U+10FFFF.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
using Utf8Converter = std::wstring_convert<std::codecvt_utf8<wchar_t>>;

std::wstring FromUtf8(const std::string& text) { return Utf8Converter().from_bytes(text); }

std::string ToUtf8(const std::wstring& text) { return Utf8Converter().to_bytes(text); }
#pragma GCC diagnostic pop

// Runs a jsoncpp parse. The reader refuses some texts by throwing instead of
// returning false (nesting deeper than its stack limit); both mean the text
// is not a document this class takes.
template <typename Parse>
bool Parsed(Parse parse) {
  try {
    return parse();
  } catch (const Json::Exception&) {
    return false;
  }
}

}  // namespace

JsonObject::JsonObject(const char* text, unsigned int length) : current_(&value_) {
  if (text == nullptr) throw static_cast<AERROR>(kErrJson);
  Json::Reader reader;
  if (!Parsed([&] { return reader.parse(text, text + length, value_, false); })) throw static_cast<AERROR>(kErrJson);
}

JsonObject::JsonObject(const char* text) : current_(&value_) {
  if (text == nullptr) return;
  Json::Reader reader;
  if (!Parsed([&] { return reader.parse(std::string(text), value_, true); })) throw static_cast<AERROR>(kErrJson);
}

JsonObject::JsonObject(Json::Value& value) : current_(&value) {}

// An owner of a null document copies as a view of it, not as an owner: the
// ownership test is on the value, as in operator=.
JsonObject::JsonObject(const JsonObject& other)
    : value_(other.value_), current_(other.value_.isNull() ? other.current_ : &value_) {}

JsonObject::~JsonObject() = default;

JsonObject JsonObject::GetEmptyObject() { return JsonObject("{}"); }

JsonObject JsonObject::Copy() { return JsonObject(*current_); }

JsonObject::operator std::string() const { return std::string(current_->asString().c_str()); }

JsonObject::operator std::wstring() const { return FromUtf8(current_->asString()); }

JsonObject::operator unsigned long long() const { return current_->asUInt64(); }

JsonObject::operator long long() const { return current_->asInt64(); }

JsonObject::operator long() const { return static_cast<long>(current_->asInt64()); }

JsonObject::operator int() const { return static_cast<int>(current_->asInt64()); }

JsonObject::operator AERROR() const { return static_cast<AERROR>(current_->asInt64()); }

JsonObject::operator double() const { return current_->asDouble(); }

JsonObject::operator bool() const { return current_->asBool(); }

JsonObject& JsonObject::operator=(std::string s) {
  *current_ = Json::Value(s);
  return *this;
}

JsonObject& JsonObject::operator=(const JsonObject& other) {
  if (!other.value_.isNull()) {
    value_ = other.value_;
    current_ = &value_;
  } else {
    *current_ = *other.current_;
  }
  return *this;
}

Json::Value* JsonObject::Find(const char* path) const {
  if (path == nullptr) return nullptr;
  Json::Value* value = current_;
  for (const std::string& name : split(path, '/')) {
    if (name.empty()) continue;
    // jsoncpp's isMember throws for anything but an object or null; a value
    // without members simply ends the walk.
    if (!value->isObject() || !value->isMember(name)) return nullptr;
    value = &(*value)[name];
  }
  return value;
}

bool JsonObject::HasObject(const char* path) const { return Find(path) != nullptr; }

JsonObject JsonObject::GetObject(const char* path) {
  Json::Value* value = Find(path);
  if (value == nullptr) throw static_cast<AERROR>(kErrInvalidArgument);
  return JsonObject(*value);
}

JsonObject JsonObject::operator[](const char* key) {
  if (key == nullptr) throw static_cast<AERROR>(kErrInvalidArgument);
  return JsonObject((*current_)[key]);
}

JsonObject JsonObject::operator[](int index) { return JsonObject((*current_)[index]); }

unsigned int JsonObject::GetArraySize() const { return current_->size(); }

std::vector<std::string> JsonObject::GetKeys() const { return current_->getMemberNames(); }

bool JsonObject::IsValid() const { return !current_->isNull(); }

bool JsonObject::IsArray() const { return current_->isArray(); }

bool JsonObject::Insert(const char* key, const JsonObject& value) {
  if (key == nullptr) return false;
  // Copied before assigning: `value` may view a part of this very document.
  Json::Value copy = *value.current_;
  (*current_)[key] = std::move(copy);
  return true;
}

bool JsonObject::Insert(const char* key, const std::wstring& value) {
  if (key == nullptr) return false;
  (*current_)[key] = Json::Value(ToUtf8(value));
  return true;
}

bool JsonObject::InsertArrayItem(std::string s) {
  current_->append(Json::Value(s));
  return true;
}

bool JsonObject::InsertArrayItem(JsonObject& value) {
  Json::Value copy = *value.current_;
  current_->append(std::move(copy));
  return true;
}

bool JsonObject::RemoveArrayItem(unsigned long index) {
  Json::Value removed;
  return current_->removeIndex(static_cast<Json::ArrayIndex>(index), &removed);
}

bool JsonObject::Remove(const char* key) {
  if (key == nullptr) return false;
  Json::Value removed;
  return current_->removeMember(key, &removed);
}

std::string JsonObject::ToText() const {
  Json::FastWriter writer;
  std::string text = writer.write(*current_);
  return trim(text);
}

std::string JsonObject::ToStyledText() const {
  Json::StyledWriter writer;
  std::string text = writer.write(*current_);
  return trim(text);
}
