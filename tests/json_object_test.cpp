#include "common/json_object.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/requests.h"

namespace {
const char kDocument[] = R"({"cache":{"ra":{"hit":3}},"name":"x"})";
}  // namespace

TEST(JsonObjectTest, ParsingAndPathWalk) {
  EXPECT_FALSE(JsonObject(nullptr).IsValid());
  // Nesting past the reader's depth limit is malformed input like any other.
  const std::string deep(2000, '[');
  for (const std::string& bad : {std::string("{\"a\":"), std::string(), deep}) {
    EXPECT_EQ(ErrorThrownBy([&] { JsonObject(bad.c_str()); }), kErrJson) << bad;
    EXPECT_EQ(ErrorThrownBy([&] { JsonObject(bad.data(), static_cast<unsigned int>(bad.size())); }), kErrJson) << bad;
  }
  // Only `length` bytes are parsed, and nothing past them is read (the
  // vector holds no terminating zero).
  const std::string text = R"({"a":[1,2]}{"b":)";
  std::vector<char> bytes(text.begin(), text.begin() + 11);
  EXPECT_EQ(JsonObject(bytes.data(), 11).ToText(), R"({"a":[1,2]})");
  EXPECT_EQ(ErrorThrownBy([&] { JsonObject(text.c_str(), 10); }), kErrJson);

  JsonObject doc(kDocument);
  for (const char* path : {"cache/ra/hit", "/cache//ra/hit/", "", "//"}) EXPECT_TRUE(doc.HasObject(path)) << path;
  for (const char* path : {"/cache/ra/miss", "/Cache/ra/hit", "/cache/ra/hit/deeper", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(doc.HasObject(path)) << path;
    EXPECT_EQ(ErrorThrownBy([&] { doc.GetObject(path); }), kErrInvalidArgument) << path;
  }
  EXPECT_FALSE(JsonObject("[{\"a\":1}]").HasObject("/0/a"));
  EXPECT_EQ(static_cast<std::string>(doc.GetObject("/cache/ra/hit")), "3");
  EXPECT_EQ(doc.GetObject("/").ToText(), kDocument);  // a failed walk creates nothing
}

TEST(JsonObjectTest, ViewsWriteThroughAndAssignmentCopies) {
  JsonObject doc(kDocument), other(R"({"b":[1]})");
  JsonObject hit = doc.GetObject("/cache/ra/hit");
  hit = "7";
  doc["cache"]["ra"]["max"] = "9";
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":"7","max":"9"}},"name":"x"})");
  // Copy() and copies of views are views; a copy of an owner is a document of its own.
  EXPECT_TRUE(doc.Copy().Remove("name"));
  EXPECT_TRUE(JsonObject(doc.GetObject("/cache/ra")).Remove("max"));
  JsonObject owner(doc);
  owner["cache"] = "gone";
  // Assigned a view: copied over the value this object refers to.
  JsonObject name = doc.GetObject("/cache/ra/hit");
  name = other.GetObject("/b");
  EXPECT_EQ(doc.ToText(), R"({"cache":{"ra":{"hit":[1]}}})");
  // Assigned an owner: this view becomes an owner of a copy; doc is unchanged.
  JsonObject cache = doc.GetObject("/cache");
  cache = other;
  cache["c"] = "new";
  EXPECT_EQ(cache.ToText() + other.ToText(), R"({"b":[1],"c":"new"}{"b":[1]})");
  doc = doc.GetObject("/cache/ra");  // a member copied over its own ancestor
  EXPECT_EQ(doc.ToText(), R"({"hit":[1]})");
}

TEST(JsonObjectTest, ConversionsAndEditing) {
  JsonObject doc(R"({"neg":-1,"zero":"a\u0000b","utf8":"\u00e9t\u00e9","obj":{}})");
  EXPECT_EQ(static_cast<AERROR>(doc["neg"]), 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<std::string>(doc["zero"]), "a");
  EXPECT_EQ(static_cast<std::wstring>(doc["utf8"]), L"\u00e9t\u00e9");
  EXPECT_THROW((void)static_cast<int>(doc["obj"]), Json::Exception);
  doc["bad"] = std::string("\xff\xfe");
  EXPECT_THROW((void)static_cast<std::wstring>(doc["bad"]), std::range_error);

  JsonObject list("[]"), item(R"({"k":1})");
  EXPECT_TRUE(list.InsertArrayItem("a"));
  EXPECT_TRUE(list.InsertArrayItem(item));
  EXPECT_TRUE(doc.Insert("list", list));
  EXPECT_TRUE(doc.Insert("name", std::wstring(L"\u00e9")));
  item["k"] = "changed";  // inserted values are copies
  EXPECT_FALSE(list.RemoveArrayItem(5));
  EXPECT_TRUE(list.RemoveArrayItem(0x100000000ul));  // the index is narrowed to 32 bits
  EXPECT_EQ(list.GetArraySize(), 1u);
  EXPECT_EQ(doc.GetObject("/list").ToText() + static_cast<std::string>(doc["name"]), "[\"a\",{\"k\":1}]\xc3\xa9");
  EXPECT_TRUE(doc.Remove("list"));
  EXPECT_FALSE(doc.Remove("missing"));
  EXPECT_FALSE(doc.RemoveArrayItem(0));
  EXPECT_EQ(doc.GetKeys(), (std::vector<std::string>{"bad", "name", "neg", "obj", "utf8", "zero"}));
  EXPECT_EQ(JsonObject(R"({"a":1})").ToStyledText(), "{\n   \"a\" : 1\n}");
  EXPECT_EQ(JsonObject::GetEmptyObject().ToText(), "{}");
}
