#include "common/config.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "support/requests.h"

TEST(ConfigTest, ParseReplacesOnlyNamedSettings) {
  Config config("");
  config.AddConfiguration("rahit", "/cache/ra/hit", 3u);
  config.AddConfiguration("ramin", "/cache/ra/min", 4294967295u);
  config.AddConfiguration("label", "label", "old");
  config.Parse(R"({"cache":{"ra":{"hit":7}},"label":"new","ramin":1})");
  EXPECT_EQ(config.GetValue("rahit") + config.GetValue("ramin") + config.GetValue("label"), "74294967295new");
  config.AddConfiguration("rahit", "/hit", 3u);  // re-registering moves the path
  config.Parse(R"({"cache":{"ra":{"hit":8,"min":2.5}},"hit":9})");
  EXPECT_EQ(config.GetValue("rahit") + " " + config.GetValue("ramin"), "9 2.5");
  EXPECT_EQ(ErrorThrownBy([&] { config.Parse("{\"hit\":"); }), kErrJson);
  // A member without a text form raises jsoncpp's error, and the lock is
  // released for the next call.
  EXPECT_THROW(config.Parse(R"({"hit":[1]})"), Json::Exception);
  config.Parse(R"({"hit":4})");
  EXPECT_EQ(config.GetValue("rahit"), "4");
  // A looked-up unknown name stays registered with an empty path, which
  // names the whole document: an object has no text form.
  EXPECT_EQ(config.GetValue("unknown"), "");
  EXPECT_THROW(config.Parse(R"({"cache":{}})"), Json::Exception);
}
