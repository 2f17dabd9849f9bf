// The JSON writer's exact layout, number texts, escaping, and the guarded strict readers.
#include "core/storage/Json.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kestrel {
namespace {

TEST(JsonText, LayoutKeyOrderAndEscapesMatchPlatform) {
  Json j = Json::parse(R"({"entries":[{"size":1048576,"originalPath":"/Users/me/a.dmg","restored":false}],
    "trigger":{"manual":{}},"empty":[],"id":"x"})");
  EXPECT_EQ(JsonText::pretty(j),
            "{\n"
            "  \"empty\" : [\n\n  ],\n"
            "  \"entries\" : [\n"
            "    {\n"
            "      \"originalPath\" : \"\\/Users\\/me\\/a.dmg\",\n"
            "      \"restored\" : false,\n"
            "      \"size\" : 1048576\n"
            "    }\n"
            "  ],\n"
            "  \"id\" : \"x\",\n"
            "  \"trigger\" : {\n"
            "    \"manual\" : {\n\n    }\n"
            "  }\n"
            "}");
  EXPECT_EQ(JsonText::pretty(Json::array()), "[\n\n]");
  EXPECT_EQ(JsonText::pretty(Json::object()), "{\n\n}");
  EXPECT_EQ(JsonText::compact(j),
            R"({"empty":[],"entries":[{"originalPath":"\/Users\/me\/a.dmg","restored":false,"size":1048576}],"id":"x","trigger":{"manual":{}}})");
  // Keys sort by their UTF-8 bytes.
  j = Json::parse(R"({"foo":3,"Foo":1,"FOO":2,"bar":10,"føo":9,"foo1":4,"Foo11":8,"Foo2":5,"foo12":7,"foo3":6})");
  EXPECT_EQ(JsonText::compact(j),
            R"({"FOO":2,"Foo":1,"Foo11":8,"Foo2":5,"bar":10,"foo":3,"foo1":4,"foo12":7,"foo3":6,"føo":9})");
  const std::string raw = std::string("a\"b\\c/d\b\f\n\r\t") + '\x01' + "\x7f" + "é\u2028";
  EXPECT_EQ(JsonText::compact(Json(raw)), "\"a\\\"b\\\\c\\/d\\b\\f\\n\\r\\t\\u0001\x7f" "é\u2028\"");
}

TEST(JsonText, NumbersAsPlatformPrintsThem) {
  struct Case {
    double value;
    const char* json;
    const char* description;
  };
  const Case cases[] = {
      {786000000.0, "786000000", "786000000.0"}, {786000000.123, "786000000.123", "786000000.123"},
      {0.1, "0.1", "0.1"}, {2.5, "2.5", "2.5"}, {10.0, "10", "10.0"}, {-12.5, "-12.5", "-12.5"},
      {1.0 / 3.0, "0.3333333333333333", "0.3333333333333333"}, {0.0001, "0.0001", "0.0001"},
      {0.00009, "9e-05", "9e-05"}, {1e-05, "1e-05", "1e-05"}, {5e-324, "5e-324", "5e-324"},
      {1e15, "1000000000000000", "1000000000000000.0"}, {1e16, "1e+16", "1e+16"},
      {9007199254740992.0, "9007199254740992", "9007199254740992.0"},
      {9007199254740994.0, "9.007199254740994e+15", "9.007199254740994e+15"},
      {-0.0, "-0", "-0.0"}, {0.0, "0", "0.0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(JsonText::number(c.value), c.json);
    EXPECT_EQ(JsonText::doubleDescription(c.value), c.description);
    EXPECT_EQ(JsonText::compact(Json(c.value)), c.json);
  }
}

TEST(JsonText, ParseRejectsHostileInput) {
  const std::string deep(100000, '[');
  const std::string invalidUtf8 = "{\"a\":\"\xff\xfe\"}";
  const std::string inputs[] = {deep, invalidUtf8, "{", "", "nul", "{\"a\":1,}", "[1e400]"};
  for (const auto& in : inputs) {
    SCOPED_TRACE(in.substr(0, 20));
    EXPECT_FALSE(JsonText::parse(in).has_value());
  }
  EXPECT_TRUE(JsonText::parse(std::string(500, '[') + std::string(500, ']')).has_value());
  EXPECT_EQ(JsonText::parse(R"({"p":"\/a/b"})")->at("p"), "/a/b");  // both slash forms decode
}

TEST(JsonDecode, IntegersFollowDecoderRules) {
  struct Case {
    const char* json;
    std::optional<int64_t> value;
  };
  const Case cases[] = {
      {"10", 10}, {"10.0", 10}, {"1e2", 100}, {"10.5", std::nullopt}, {"\"10\"", std::nullopt},
      {"true", std::nullopt}, {"9223372036854775807", INT64_MAX},
      {"9223372036854775808", std::nullopt}, {"-9223372036854775808", INT64_MIN},
      {"1e300", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    Json obj = Json::parse(std::string("{\"k\":") + c.json + "}");
    if (c.value) {
      EXPECT_EQ(JsonDecode::int64(obj, "k"), *c.value);
    } else {
      EXPECT_THROW(JsonDecode::int64(obj, "k"), DecodeError);
    }
  }
}

TEST(JsonDecode, OneCaseNeedsExactlyOneKnownKey) {
  struct Case {
    const char* json;
    const char* name;  // nullptr: rejected
  };
  const Case cases[] = {
      {R"({})", nullptr}, {R"({"manual":{},"schedule":{"ruleName":"a"}})", nullptr},
      {R"({"bogus":{}})", nullptr}, {R"({"manual":{},"bogus":1})", "manual"},
      {R"({"manual":{"x":1}})", "manual"}, {R"({"manual":null})", nullptr},
      {R"({"manual":1})", nullptr}, {R"([])", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    Json j = Json::parse(c.json);
    if (c.name) {
      EXPECT_EQ(JsonDecode::oneCase(j, {"manual", "schedule"}).first, c.name);
    } else {
      EXPECT_THROW(JsonDecode::oneCase(j, {"manual", "schedule"}), DecodeError);
    }
  }
}

}  // namespace
}  // namespace kestrel
