// The layer check: the tree as it is passes, and an include from a higher layer is caught and named.
#include "core/system/process/Shell.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

using test::ScratchHome;

Shell::Result checkLayers(const fs::path& root) {
  return Shell::run("/bin/bash", {std::string(KESTREL_SOURCE_DIR) + "/scripts/check-layers.sh", root.string()}, 60);
}

TEST(LayerCheck, PassesOnTheTreeAndNamesEveryUpwardInclude) {
  const auto tree = checkLayers(KESTREL_SOURCE_DIR);
  EXPECT_EQ(tree.status, 0) << tree.stdout;

  ScratchHome h;
  h.text("core/base/Low.h", "#pragma once\n#include \"core/base/Other.h\"\n#include <vector>\n");
  h.text("core/store/Store.h", "#pragma once\n#include \"core/system/Paths.h\"\n");
  EXPECT_EQ(checkLayers(h.home()).status, 0);
  // A store reaching up into the cleaner, a folder that belongs to no layer, and the two ways
  // around the check: a relative path and angle brackets.
  h.text("core/store/Bad.cpp", "#include \"core/store/Store.h\"\n#include \"core/clean/Cleaner.h\"\n");
  h.text("core/elsewhere/Stray.h", "#pragma once\n");
  h.text("core/store/Relative.cpp", "#include \"../clean/Cleaner.h\"\n");
  h.text("core/store/Angle.cpp", "#include <core/clean/Cleaner.h>\n");
  const auto bad = checkLayers(h.home());
  EXPECT_NE(bad.status, 0);
  for (const char* said : {"core/store/Bad.cpp includes core/clean/Cleaner.h from a higher layer",
                           "not in any layer: core/elsewhere/Stray.h",
                           "not from the repository root in quotes: core/store/Relative.cpp:1:#include \"../clean/Cleaner.h\"",
                           "not from the repository root in quotes: core/store/Angle.cpp:1:#include <core/clean/Cleaner.h>"})
    EXPECT_NE(bad.stdout.find(said), std::string::npos) << said << "\n" << bad.stdout;
  EXPECT_EQ(bad.stdout.find("Store.h from a higher layer"), std::string::npos);
}

}  // namespace
}  // namespace kestrel
