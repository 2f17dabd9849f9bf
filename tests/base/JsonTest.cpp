// The JSON writer's exact layout and numbers, escaped bytes, the parser, and the strict readers.
#include "core/base/Json.h"

#include "core/base/Text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>

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
  const struct Case {
    double value;
    const char* json;
    const char* description;
  } cases[] = {
      {786000000.0, "786000000", "786000000.0"}, {786000000.123, "786000000.123", "786000000.123"},
      {1.0 / 3.0, "0.3333333333333333", "0.3333333333333333"}, {0.0001, "0.0001", "0.0001"},
      {0.00009, "9e-05", "9e-05"}, {5e-324, "5e-324", "5e-324"}, {1e16, "1e+16", "1e+16"},
      {1e15, "1000000000000000", "1000000000000000.0"}, {-0.0, "-0", "-0.0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(JsonText::number(c.value), c.json);
    EXPECT_EQ(JsonText::doubleDescription(c.value), c.description);
    EXPECT_EQ(JsonText::compact(Json(c.value)), c.json);
  }
}

TEST(JsonText, ParseFollowsTheGrammarAndKeepsEveryByte) {
  struct Case {
    std::string text;
    std::optional<Json> value;  // nothing: rejected
  };
  const std::string bom = "\xEF\xBB\xBF";
  const Case cases[] = {
      // Names that are only bytes: escaped or raw (as older versions wrote them), keys too.
      {R"(["bad\udcff", "\udc80\uDCFE"])", Json::array({"bad\xff", "\x80\xfe"})},
      {"{\"a\":\"\xff\xfe\"}", Json{{"a", "\xff\xfe"}}},
      {R"({"k\udcff":1,"\u00e9":"\ud83d\ude00"})", Json{{"k\xff", 1}, {"é", "\U0001F600"}}},
      {R"("\ud800\udc80")", Json("\U00010080")},  // a real pair, even when its low half is dc80
      {R"("a\u0000b\/\"\\\b\f\n\r\t")", Json(std::string("a\0b/\"\\\b\f\n\r\t", 11))},
      {"\"\x7f\xed\xa0\x80\"", Json("\x7f\xed\xa0\x80")},
      {R"("\udc7f")", std::nullopt}, {R"("\udfff")", std::nullopt}, {R"("\ud800")", std::nullopt},
      {R"("\ud800\u0041")", std::nullopt}, {R"("\ud800\ud800")", std::nullopt}, {R"("\u12g4")", std::nullopt},
      {R"("\x")", std::nullopt}, {"\"a\tb\"", std::nullopt}, {"\"abc", std::nullopt}, {R"("\)", std::nullopt},
      // Numbers.
      {"[0, -0, 10, -5, 1.5, -2.5e-3, 1E2, 5e-324]",
       Json::array({0, 0, 10, -5, 1.5, -2.5e-3, 100.0, 5e-324})},
      {"[18446744073709551615, -9223372036854775808]",
       Json::array({UINT64_MAX, INT64_MIN})},
      {"[18446744073709551616, -9223372036854775809]",
       Json::array({18446744073709551616.0, -9223372036854775809.0})},
      {"[1e-400, -1e-400, 0.0000e99999999999999999]", Json::array({0.0, -0.0, 0.0})},
      {"1e400", std::nullopt}, {"-1e400", std::nullopt}, {"12345678901234567890e300", std::nullopt},
      {"01", std::nullopt}, {"1.", std::nullopt}, {".5", std::nullopt}, {"1e+", std::nullopt},
      {"+1", std::nullopt}, {"-", std::nullopt}, {"NaN", std::nullopt}, {"-Infinity", std::nullopt},
      // Structure.
      {" \t\r\n{ \"a\" : [ 1 , {} , [ ] ] , \"b\" : null } \n",
       Json{{"a", Json::array({1, Json::object(), Json::array()})}, {"b", nullptr}}},
      {R"({"a":1,"a":[2]})", Json{{"a", Json::array({2})}}},  // the last one wins
      {bom + "[true,false]", Json::array({true, false})},
      {"", std::nullopt}, {"{", std::nullopt}, {"nul", std::nullopt}, {"[1,]", std::nullopt},
      {R"({"a":1,})", std::nullopt}, {"[1 2]", std::nullopt}, {"{a:1}", std::nullopt}, {"['a']", std::nullopt},
      {"[1] x", std::nullopt}, {"[1][2]", std::nullopt}, {std::string("[1]\0", 4), std::nullopt},
      {" " + bom + "1", std::nullopt}, {"\xff", std::nullopt},
      {std::string(513, '[') + std::string(513, ']'), std::nullopt},
      {std::string(100000, '['), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    const auto got = JsonText::parse(c.text);
    ASSERT_EQ(got.has_value(), c.value.has_value());
    if (c.value) {
      EXPECT_TRUE(*got == *c.value) << JsonText::compact(*got);
    }
  }
  // Nesting: 512 levels are fine, however they are mixed; 513 are not.
  EXPECT_TRUE(JsonText::parse(std::string(512, '[') + std::string(512, ']')));
  std::string mixed;
  for (int i = 0; i < 512; ++i) mixed += i % 2 ? "{\"k\":" : "[";
  mixed += "1";
  for (int i = 511; i >= 0; --i) mixed += i % 2 ? "}" : "]";
  EXPECT_TRUE(JsonText::parse(mixed));
  EXPECT_FALSE(JsonText::parse("[" + mixed + "]"));
  // Not negative: unsigned, as the manifest's "dev" and "ino" are checked; negative: signed.
  EXPECT_TRUE(JsonText::parse("7")->is_number_unsigned());
  EXPECT_FALSE(JsonText::parse("-7")->is_number_unsigned());
  EXPECT_TRUE(JsonText::parse("-7")->is_number_integer());
  EXPECT_TRUE(JsonText::parse("7.0")->is_number_float());
}

TEST(JsonText, EveryStringRoundTripsAsValueAndKey) {
  // Strings built from pieces that stress the escape: any single byte, well-formed sequences of
  // every length, cut-off and overlong sequences, encoded surrogates and escape look-alikes.
  const std::vector<std::string> pieces = {
      "a", "/", "\\", "\"", "\n", "\x01", "\x7f", "é", "✓", "\U0001D11E", "\xed\xb3\xbf",
      "\xed\xa0\x80", "\xc0\xaf", "\xe2\x82", "\xf0\x9f\x98", "\xf4\x90\x80\x80", "\\udcff",
      "\\ud800", "\u2028",
  };
  std::mt19937 rng(20260301);
  const auto randomString = [&] {
    std::string s;
    const int n = std::uniform_int_distribution<int>(0, 12)(rng);
    for (int i = 0; i < n; ++i) {
      if (rng() % 2) s += static_cast<char>(rng() % 256);
      else s += pieces[rng() % pieces.size()];
    }
    return s;
  };
  for (int round = 0; round < 3000; ++round) {
    Json doc = Json::object();
    for (int k = 0; k < 3; ++k) doc[randomString()] = Json::array({randomString(), randomString()});
    for (const std::string& text : {JsonText::compact(doc), JsonText::pretty(doc)}) {
      SCOPED_TRACE(text);
      ASSERT_TRUE(Utf8::isValid(text));
      const auto back = JsonText::parse(text);
      ASSERT_TRUE(back);
      ASSERT_TRUE(*back == doc) << JsonText::compact(*back);
    }
  }
  // Each of the 256 byte values alone, where a lone byte of 0x80 and above is never text.
  for (int b = 0; b < 256; ++b) {
    const std::string s(1, static_cast<char>(b));
    const std::string text = JsonText::compact(Json{{s, s}});
    SCOPED_TRACE(b);
    if (b >= 0x80) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\udc%02x", b);
      EXPECT_EQ(text, std::string("{\"") + esc + "\":\"" + esc + "\"}");
    }
    const auto back = JsonText::parse(text);
    EXPECT_TRUE(back && *back == Json({{s, s}}));
  }
}

TEST(JsonDecode, IntegersFollowDecoderRules) {
  const struct Case {
    const char* json;
    std::optional<int64_t> value;
  } cases[] = {
      {"10.0", 10}, {"1e2", 100}, {"10.5", std::nullopt}, {"\"10\"", std::nullopt},
      {"9223372036854775807", INT64_MAX}, {"9223372036854775808", std::nullopt}, {"-9223372036854775808", INT64_MIN},
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
  const struct Case {
    const char* json;
    const char* name;  // nullptr: rejected
  } cases[] = {
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
