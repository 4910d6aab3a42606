#include "common/json_object.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/requests.h"

namespace {
const char kDocument[] = R"({"cache":{"ra":{"hit":3}},"name":"x"})";
}  // namespace

TEST(JsonObjectTest, Parsing) {
  EXPECT_FALSE(JsonObject(nullptr).IsValid());
  EXPECT_EQ(JsonObject::GetEmptyObject().ToText(), "{}");
  // Nesting past the reader's depth limit is malformed input like any other.
  const std::string deep(2000, '[');
  for (const std::string& bad : {std::string("{\"a\":"), std::string(), deep}) {
    EXPECT_EQ(ErrorThrownBy([&] { JsonObject(bad.c_str()); }), kErrJson) << bad;
    EXPECT_EQ(ErrorThrownBy([&] { JsonObject(bad.data(), static_cast<unsigned int>(bad.size())); }), kErrJson) << bad;
  }
  EXPECT_EQ(ErrorThrownBy([] { JsonObject(nullptr, 3); }), kErrJson);

  // Only `length` bytes are parsed, and nothing past them is read (the
  // vector holds no terminating zero).
  const std::string text = R"({"a":[1,2]}{"b":)";
  std::vector<char> bytes(text.begin(), text.begin() + 11);
  EXPECT_EQ(JsonObject(bytes.data(), 11).ToText(), R"({"a":[1,2]})");
  EXPECT_EQ(JsonObject(text.c_str(), 11).ToText(), R"({"a":[1,2]})");
  EXPECT_EQ(ErrorThrownBy([&] { JsonObject(text.c_str(), 10); }), kErrJson);
}

TEST(JsonObjectTest, PathWalk) {
  JsonObject doc(kDocument);
  for (const char* path : {"/cache/ra/hit", "cache/ra/hit", "/cache//ra/hit", "/cache/ra/hit/",
                           "", "/", "//"}) {
    EXPECT_TRUE(doc.HasObject(path)) << path;
  }
  for (const char* path : {"/cache/ra/miss", "/Cache/ra/hit", "/cache/ra/hit/deeper",
                           static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(doc.HasObject(path)) << path;
    EXPECT_EQ(ErrorThrownBy([&] { doc.GetObject(path); }), kErrInvalidArgument) << path;
  }
  EXPECT_FALSE(JsonObject("[{\"a\":1}]").HasObject("/0/a"));

  EXPECT_EQ(static_cast<std::string>(doc.GetObject("/cache/ra/hit")), "3");
  EXPECT_EQ(doc.GetObject("/").ToText(), doc.ToText());
  // A failed walk creates nothing.
  EXPECT_EQ(doc.ToText(), kDocument);
}

TEST(JsonObjectTest, ViewsWriteThroughToTheOwner) {
  JsonObject doc(kDocument);
  JsonObject hit = doc.GetObject("/cache/ra/hit");
  hit = "7";
  doc["cache"]["ra"]["max"] = "9";
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":"7","max":"9"}},"name":"x"})");

  // Copy() and copies of views are views; a copy of an owner is a document
  // of its own.
  EXPECT_TRUE(doc.Copy().Remove("name"));
  JsonObject ra = doc.GetObject("/cache/ra");
  EXPECT_TRUE(JsonObject(ra).Remove("max"));
  JsonObject deep(doc);
  deep["cache"] = "gone";
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":"7"}}})");
}

TEST(JsonObjectTest, Assignment) {
  JsonObject doc(kDocument);
  JsonObject other(R"({"b":[1]})");

  // From a view: copied over the value this object refers to.
  JsonObject name = doc.GetObject("/name");
  name = other.GetObject("/b");
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":3}},"name":[1]})");

  // From an owner: this view becomes an owner of a copy; doc is unchanged.
  JsonObject cache = doc.GetObject("/cache");
  cache = other;
  cache["c"] = "new";
  EXPECT_EQ(cache.ToText(), R"({"b":[1],"c":"new"})");
  EXPECT_EQ(other.ToText(), R"({"b":[1]})");
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":3}},"name":[1]})");

  // A member copied over its own ancestor.
  doc = doc.GetObject("/cache/ra");
  EXPECT_EQ(doc.ToText(), R"({"hit":3})");
}

TEST(JsonObjectTest, Conversions) {
  JsonObject doc(R"({"neg":-1,"zero":"a\u0000b","utf8":"\u00e9t\u00e9","obj":{}})");
  EXPECT_EQ(static_cast<AERROR>(doc["neg"]), 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<std::string>(doc["zero"]), "a");
  EXPECT_EQ(static_cast<std::wstring>(doc["utf8"]), L"\u00e9t\u00e9");
  EXPECT_THROW((void)static_cast<int>(doc["obj"]), Json::Exception);
  JsonObject bad = doc["bad"];
  bad = std::string("\xff\xfe");
  EXPECT_THROW((void)static_cast<std::wstring>(bad), std::range_error);
}

TEST(JsonObjectTest, EditingMembersAndArrays) {
  JsonObject doc = JsonObject::GetEmptyObject();
  EXPECT_TRUE(doc.Insert("name", std::wstring(L"\u00e9")));
  EXPECT_EQ(static_cast<std::string>(doc["name"]), "\xc3\xa9");

  JsonObject list("[]");
  EXPECT_TRUE(list.InsertArrayItem("a"));
  JsonObject item(R"({"k":1})");
  EXPECT_TRUE(list.InsertArrayItem(item));
  EXPECT_TRUE(doc.Insert("list", list));
  // Inserted values are copies.
  item["k"] = "changed";
  EXPECT_TRUE(list.RemoveArrayItem(0));
  EXPECT_FALSE(list.RemoveArrayItem(5));
  // The index is narrowed to 32 bits.
  EXPECT_TRUE(list.RemoveArrayItem(0x100000000ul));
  EXPECT_EQ(list.GetArraySize(), 0u);
  EXPECT_EQ(doc.GetObject("/list").ToText(), R"(["a",{"k":1}])");

  EXPECT_TRUE(doc.Insert("again", doc["list"][1]));
  EXPECT_EQ(doc.GetKeys(), (std::vector<std::string>{"again", "list", "name"}));
  EXPECT_FALSE(doc.Remove("missing"));
  EXPECT_FALSE(doc.RemoveArrayItem(0));

  std::string styled = doc.ToStyledText();
  EXPECT_NE(styled.find('\n'), std::string::npos);
  EXPECT_EQ(styled.back(), '}');
}
