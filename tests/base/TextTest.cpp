// UTF-8 checks and the display form of names that are not text.
#include <gtest/gtest.h>

#include "core/base/Text.h"

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

}  // namespace
}  // namespace kestrel
