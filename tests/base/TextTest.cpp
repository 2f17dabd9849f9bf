// Text: UTF-8 checks, the display form of names that are not text, and byte-count texts.
#include "core/base/ByteFormat.h"
#include "core/base/Text.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(Utf8, DisplayTextReplacesEachIllFormedSequenceOnce) {
  struct Case {
    std::string bytes;
    std::string display;
  };
  const std::string r = "\xEF\xBF\xBD";  // U+FFFD
  const Case cases[] = {
      {"", ""},
      {"plain é✓\U0001D11E", "plain é✓\U0001D11E"},
      {"bad\xff", "bad" + r},
      {"\xff\xfe", r + r},
      {"\xe2\x82"
       "A",
       r + "A"},                            // a cut-off sequence is one subpart
      {"\xf0\x9f\x98", r},                  // cut off by the end
      {"\xc0\xaf", r + r},                  // overlong
      {"\xe0\x80\x80", r + r + r},          // overlong
      {"\xed\xa0\x80", r + r + r},          // an encoded surrogate
      {"\xf4\x90\x80\x80", r + r + r + r},  // past U+10FFFF
      {"\x80x\xbf", r + "x" + r},           // stray continuation bytes
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.display);
    EXPECT_EQ(Utf8::displayText(c.bytes), c.display);
    EXPECT_EQ(Utf8::isValid(c.bytes), c.bytes == c.display);
    EXPECT_TRUE(Utf8::isValid(Utf8::displayText(c.bytes)));
  }
}

TEST(ByteFormat, MatchesPlatformVectors) {
  const struct Case {
    int64_t bytes;
    const char* text;
  } cases[] = {
      // Bytes, singular and plural, either sign.
      {0, "Zero KB"}, {1, "1 byte"}, {2, "2 bytes"}, {-1, "-1 byte"}, {-2, "-2 bytes"},
      {999, "999 bytes"},
      // KB: whole numbers, decimal units, half-even rounding.
      {1000, "1 KB"}, {1023, "1 KB"}, {1024, "1 KB"}, {1499, "1 KB"}, {1500, "2 KB"},
      {2500, "2 KB"}, {11999, "12 KB"}, {65536, "66 KB"}, {900000, "900 KB"}, {999499, "999 KB"},
      // Promoted when the rounded value reaches 1000; MB keeps one fraction digit.
      {999500, "1 MB"}, {999999, "1 MB"}, {1000000, "1 MB"}, {1049999, "1 MB"}, {1050000, "1 MB"},
      {1250000, "1.2 MB"}, {12345678, "12.3 MB"}, {123456789, "123.5 MB"},
      {999900000, "999.9 MB"},
      // GB and above keep two.
      {999999999, "1 GB"}, {1000000000, "1 GB"}, {1234567890, "1.23 GB"}, {8475891734, "8.48 GB"},
      {12345678987, "12.35 GB"}, {123456789012, "123.46 GB"}, {999995000000, "1 TB"},
      {1000000000000, "1 TB"}, {1500000000000, "1.5 TB"}, {1234567890123, "1.23 TB"},
      {1000000000000000, "1 PB"}, {INT64_MAX / 2, "4.61 EB"}, {INT64_MAX, "9.22 EB"},
      // Negative counts mirror the positive ones.
      {-1023, "-1 KB"}, {-999999, "-1 MB"}, {-1234567898, "-1.23 GB"},
      {-12345678987, "-12.35 GB"}, {INT64_MIN, "-9.22 EB"},
  };
  for (const auto& c : cases) EXPECT_EQ(ByteFormat::string(c.bytes), c.text) << c.bytes;
}

}  // namespace
}  // namespace kestrel
