#include <gtest/gtest.h>

#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"

namespace tarn_test {
namespace {

using tarn::HttpRequest;
using tarn::QueryReader;

HttpRequest asked(std::vector<std::pair<std::string, std::string>> query) {
  return {HttpRequest::Method::kGet, "/", std::move(query)};
}

TEST(QueryReader, TimesAreMillisecondsWithDecimals) {
  const HttpRequest request =
      asked({{"a", "1700000000123"}, {"b", "5.25"}, {"c", "4294967295999.999"}});
  QueryReader query(request, {"a", "b", "c", "d"});
  EXPECT_EQ(query.timeUs("a"), 1700000000123000);
  EXPECT_EQ(query.timeUs("b"), 5250);
  EXPECT_EQ(query.timeUs("c"), 4294967295999999);
  EXPECT_EQ(query.timeUs("d"), std::nullopt);
  EXPECT_TRUE(query.ok());
}

TEST(QueryReader, WhatIsNoTimeIsRefused) {
  for (const char* text : {"", "-1", "+1", "1e3", " 1", "1 ", "1.", ".5", "1.2.3", "0x1",
                           "4294967296000", "99999999999999999999", "1,5", "nan"}) {
    const HttpRequest request = asked({{"a", text}});
    QueryReader query(request, {"a"});
    EXPECT_EQ(query.timeUs("a"), std::nullopt) << text;
    EXPECT_FALSE(query.ok()) << text;
  }
}

TEST(QueryReader, NumbersKeepToTheirBounds) {
  const HttpRequest request = asked({{"a", "7"}, {"b", "128"}, {"channel", "127"}});
  QueryReader query(request, {"a", "b", "channel"});
  EXPECT_EQ(query.number("a", 0, 7, 1), 7);
  EXPECT_EQ(query.number("none", 0, 7, 1), 1);
  EXPECT_EQ(query.channel(), 127);
  EXPECT_TRUE(query.ok());
  EXPECT_EQ(query.number("b", 0, 127, 1), 1);
  EXPECT_FALSE(query.ok());
}

TEST(QueryReader, WhatIsNotKnownOrThereTwiceIsRefused) {
  EXPECT_FALSE(QueryReader(asked({{"b", "1"}}), {"a"}).ok());
  EXPECT_FALSE(QueryReader(asked({{"a", "1"}, {"a", "1"}}), {"a"}).ok());
  EXPECT_TRUE(QueryReader(asked({{"a", "1"}}), {"a"}).ok());
}

TEST(JsonText, TextsAreUtf8WhateverComes) {
  tarn::JsonText json;
  json.beginArray().text("a\"\\\n\x7F").text("Z\xC3\xBCrich \xF0\x9F\x8E\xA5");
  json.text("\xC3 \xED\xA0\x80 \xC0\xAF \xF5\x80\x80\x80 \xE2\x82").end();
  const std::string lost = "\xEF\xBF\xBD";
  EXPECT_EQ(json.take(), "[\"a\\u0022\\u005c\\u000a\x7F\",\"Z\xC3\xBCrich \xF0\x9F\x8E\xA5\",\"" +
                             lost + " " + lost + lost + lost + " " + lost + lost + " " + lost +
                             lost + lost + lost + " " + lost + lost + "\"]");
}

TEST(JsonText, ThousandthsHaveTheDecimalsThatTheyTake) {
  tarn::JsonText json;
  json.beginObject().key("a").beginArray();
  json.thousandths(0).thousandths(1).thousandths(1500).thousandths(-20).thousandths(INT64_MAX);
  json.end().key("b").null().key("c").boolean(true).end();
  EXPECT_EQ(json.take(), "{\"a\":[0,0.001,1.5,-0.02,9223372036854775.807],\"b\":null,\"c\":true}");
}

}  // namespace
}  // namespace tarn_test
