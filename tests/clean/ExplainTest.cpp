// Explanations of removal failures: first rule wins, lower-cased matching, the 160-character cut.
#include "core/clean/Explain.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(Explain, FirstMatchingRuleWins) {
  const std::string long200(200, 'z');
  const struct Case {
    const char* output;
    std::string expected;
  } cases[] = {
      {"execution error: User canceled. (-128)", "You cancelled the password prompt"},
      {"USER CANCELLED", "You cancelled the password prompt"},
      {"error -128", "You cancelled the password prompt"},
      {"rm: x: Operation not permitted; read-only", "macOS blocks this path (System Integrity Protection or Full Disk Access missing)"},
      {"rm: x: Resource busy", "File is in use — quit the app and retry"},
      {"file in use", "File is in use — quit the app and retry"},
      {"Read-only file system", "Read-only volume"},
      {"", "Still present after removal (/Library/Caches/x)"},
      {"something odd", "something odd"},
      {long200.c_str(), std::string(160, 'z')},
  };
  for (const auto& c : cases) EXPECT_EQ(Explain::removalFailure("/Library/Caches/x", c.output), c.expected) << c.output;
  const std::string accents(170, 'a');
  EXPECT_EQ(Explain::removalFailure("/p", std::string(159, 'a') + "éé").size(), 161u);  // never cut inside é
  EXPECT_EQ(Explain::removalFailure("/p", accents).size(), 160u);
}

}  // namespace
}  // namespace kestrel
