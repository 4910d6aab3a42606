#include "common/json_object.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/requests.h"

// Parsing, the path walk, views and owners, conversions and editing.
TEST(JsonObjectTest, ParsingAndPathWalk) {
  EXPECT_FALSE(JsonObject(nullptr).IsValid());
  // Nesting past the reader's depth limit is malformed input like any other.
  const std::string deep(2000, '[');
  for (const std::string& bad : {std::string("{\"a\":"), std::string(), deep}) {
    EXPECT_EQ(ErrorThrownBy([&] { JsonObject(bad.c_str()); }), kErrJson) << bad;
    EXPECT_EQ(ErrorThrownBy([&] { JsonObject(bad.data(), static_cast<unsigned int>(bad.size())); }), kErrJson) << bad;
  }
  // Only `length` bytes are parsed.
  EXPECT_EQ(JsonObject(R"({"a":[1,2]}{"b":)", 11).ToText(), R"({"a":[1,2]})");
  EXPECT_EQ(ErrorThrownBy([] { JsonObject(R"({"a":[1,2]})", 10); }), kErrJson);

  const char kDocument[] = R"({"cache":{"ra":{"hit":3}},"name":"x"})";
  JsonObject doc(kDocument);
  for (const char* path : {"cache/ra/hit", "/cache//ra/hit/", "", "//"}) EXPECT_TRUE(doc.HasObject(path)) << path;
  for (const char* p : {"/cache/ra/miss", "/Cache/ra/hit", "/cache/ra/hit/deeper", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(doc.HasObject(p)) << p;
    EXPECT_EQ(ErrorThrownBy([&] { doc.GetObject(p); }), kErrInvalidArgument) << p;
  }
  EXPECT_EQ(doc.GetObject("/").ToText(), kDocument);  // a failed walk creates nothing

  JsonObject other(R"({"b":[1]})");
  doc["cache"]["ra"]["max"] = "9";
  // Copy() and copies of views are views; a copy of an owner is a document of its own.
  EXPECT_TRUE(doc.Copy().Remove("name"));
  EXPECT_TRUE(JsonObject(doc.GetObject("/cache/ra")).Remove("max"));
  JsonObject{doc}["cache"] = "gone";
  doc.GetObject("/cache/ra/hit") = other.GetObject("/b");  // a view assigned a view: copied over the value it refers to
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":[1]}}})");
  JsonObject cache = doc.GetObject("/cache");
  cache = other;  // a view assigned an owner becomes an owner of a copy
  cache["c"] = "new";
  EXPECT_EQ(cache.ToText() + other.ToText(), R"({"b":[1],"c":"new"}{"b":[1]})");
  doc = doc.GetObject("/cache/ra");  // a member copied over its own ancestor
  EXPECT_EQ(doc.ToText(), R"({"hit":[1]})");

  doc = JsonObject(R"({"neg":-1,"zero":"a\u0000b","utf8":"\u00e9t\u00e9","obj":{}})");
  doc["bad"] = std::string("\xff\xfe");
  EXPECT_EQ(static_cast<AERROR>(doc["neg"]), 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<std::string>(doc["zero"]), "a");
  EXPECT_EQ(static_cast<std::wstring>(doc["utf8"]), L"\u00e9t\u00e9");
  EXPECT_THROW((void)static_cast<std::wstring>(doc["bad"]), std::range_error);
  JsonObject list("[]"), item(R"({"k":1})");
  EXPECT_TRUE(list.InsertArrayItem("a") && list.InsertArrayItem(item) && doc.Insert("list", list) &&
              doc.Insert("name", std::wstring(L"\u00e9")));
  item["k"] = "changed";  // inserted values are copies
  EXPECT_FALSE(list.RemoveArrayItem(5));
  EXPECT_TRUE(list.RemoveArrayItem(0x100000000ul));  // the index is narrowed to 32 bits
  EXPECT_EQ(list.GetArraySize(), 1u);
  EXPECT_EQ(doc.GetObject("/list").ToText() + static_cast<std::string>(doc["name"]), "[\"a\",{\"k\":1}]\xc3\xa9");
  EXPECT_FALSE(doc.Remove("missing") || doc.RemoveArrayItem(0));
  EXPECT_EQ(doc.GetKeys(), (std::vector<std::string>{"bad", "list", "name", "neg", "obj", "utf8", "zero"}));
  EXPECT_EQ(JsonObject(R"({"a":1})").ToStyledText(), "{\n   \"a\" : 1\n}");
}
