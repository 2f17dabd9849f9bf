// Notifications: the escaped script text, and a post that needs no tool to be there.
#include "core/system/process/Notification.h"
#include "core/system/Services.h"
#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(Notifier, EscapesScriptTextAndPostsWhenATOolExists) {
  EXPECT_EQ(platform::notificationScript("Ti\"tle\\", "Bo\\dy \"x\""),
            "display notification \"Bo\\\\dy \\\"x\\\"\" with title \"Ti\\\"tle\\\\\"");
  test::ScratchHome h;
  test::FakeTools tools(h.root());
  {
    test::ScopedEnv path("PATH", tools.bin().string());
    Services{}.withDefaults().notify("t", "b");  // no tool at all: quietly nothing
  }
  tools.tool("notify-send");
  Services{}.withDefaults().notify("Kestrel", "Freed 2 KB");
  ASSERT_EQ(tools.calls("notify-send").size(), 1u);
  EXPECT_EQ(tools.calls("notify-send")[0], (std::vector<std::string>{"--app-name=orvo Kestrel", "--", "Kestrel", "Freed 2 KB"}));
}

}  // namespace
}  // namespace kestrel
