// A JSON document or a view into one, over jsoncpp's Json::Value.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "korvcache.h"

// A JsonObject works on one Json::Value, which it either owns (an object
// parsed from text, or a copy of an owner) or merely points into (a view).
//
// Members are handed out as views: GetObject, both subscripts and Copy return
// objects that point into this object's tree, so writing through them edits
// this document. A view never owns what it points at: the document it came
// from must outlive it, and must not drop the viewed member meanwhile.
//
// Copying an owner deep-copies its document; copying a view (or an owner
// holding null) gives another view of the same value.
//
// Errors: text that is not JSON throws AERROR kErrJson; GetObject of a path
// that is not there throws AERROR kErrInvalidArgument. Conversions and edits
// that jsoncpp refuses (an object read as a number, a member of an array)
// throw jsoncpp's own exceptions (Json::Exception) unchanged.
//
// Not thread safe: the owner and all its views form one unit that must be
// used by one thread at a time.
class KORV_EXPORT JsonObject {
 public:
  // Parses the `length` bytes at `text` (no terminating zero needed; bytes
  // past `length` are not read). Comments are accepted and dropped.
  // Throws kErrJson when the bytes are not JSON or `text` is null.
  JsonObject(const char* text, unsigned int length);
  // Parses the zero-terminated `text`, keeping its comments. A null `text`
  // gives an owner of the null value (IsValid() false).
  // Throws kErrJson when the text is not JSON.
  explicit JsonObject(const char* text);
  // A view of `value`, which must outlive this object.
  explicit JsonObject(Json::Value& value);
  JsonObject(const JsonObject& other);
  virtual ~JsonObject();

  // An owner of the empty object "{}".
  static JsonObject GetEmptyObject();
  // A view of this object's value; not a deep copy, whatever the name says.
  JsonObject Copy();

  // Conversions of the value, by jsoncpp's rules (asString, asInt64, ...).
  // Text stops at the first zero byte. Wide text is decoded from UTF-8 and
  // throws std::range_error on malformed UTF-8. The signed and AERROR forms
  // are the 64-bit signed value narrowed.
  operator std::string() const;
  operator std::wstring() const;
  operator unsigned long long() const;
  operator long long() const;
  operator long() const;
  operator int() const;
  operator AERROR() const;
  operator double() const;
  operator bool() const;

  // Replaces the value (through a view: the viewed member) with the string s.
  JsonObject& operator=(std::string s);
  // If `other` owns a non-null document, this object becomes an owner of a
  // deep copy of it (a view then stops writing through). Otherwise the value
  // `other` refers to is deep-copied over this object's value, writing
  // through a view.
  JsonObject& operator=(const JsonObject& other);

  // Walks a path of member names separated by "/" from this value. Empty
  // names (leading, doubled or trailing "/") are skipped; a path without any
  // name denotes this value itself. Names match exactly, case-sensitively; a
  // value that is not an object has no members. There is no array indexing.
  bool HasObject(const char* path) const;
  // A view of the value at `path`. Throws kErrInvalidArgument when a member
  // on the way is missing or `path` is null.
  JsonObject GetObject(const char* path);

  // Views of a member or element; a missing one is created as null (jsoncpp's
  // non-constant subscripts). Throws kErrInvalidArgument for a null `key`.
  JsonObject operator[](const char* key);
  JsonObject operator[](int index);

  unsigned int GetArraySize() const;
  std::vector<std::string> GetKeys() const;
  // True when the value is not null.
  bool IsValid() const;
  bool IsArray() const;

  // Sets member `key` to a deep copy of the value `value` refers to.
  // Returns true; false for a null `key`.
  bool Insert(const char* key, const JsonObject& value);
  // Sets member `key` to `value` encoded as UTF-8. Returns true; false for a
  // null `key`. Throws std::range_error for a character beyond U+10FFFF.
  bool Insert(const char* key, const std::wstring& value);
  // Appends the string s; returns true.
  bool InsertArrayItem(std::string s);
  // Appends a copy of the value `value` refers to; returns true.
  bool InsertArrayItem(JsonObject& value);
  // Removes element `index` (narrowed to 32 bits). Returns false when the
  // value is not an array or has no such element.
  bool RemoveArrayItem(unsigned long index);
  // Removes member `key`. Returns false when there is no such member.
  bool Remove(const char* key);

  // The value as compact JSON, without a final line break.
  std::string ToText() const;
  // The value as indented JSON, without a final line break.
  std::string ToStyledText() const;

 private:
  // The member reached by the path walk, or null when the walk fails.
  Json::Value* Find(const char* path) const;

  Json::Value value_;      // the owned document; null in a view
  Json::Value* current_;   // what every operation works on: &value_ or a viewed value
};
