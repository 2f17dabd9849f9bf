// The install tree: `cmake --install` into a scratch DESTDIR holds the programs, the licence, the
// man pages (which render) and the shells' completions (which parse).
#include <gtest/gtest.h>

#include "core/system/process/Shell.h"
#include "tests/support/ScratchHome.h"

namespace kestrel::test {
namespace {

TEST(InstallTree, EveryFileIsInPlaceAndReadable) {
  ScratchHome h;
  const fs::path destdir = h.outside("destdir");
  const fs::path build = fs::path(KESTREL_HOST_BINARY).parent_path();
  const auto install = Shell::run("env", {"DESTDIR=" + destdir.string(), "cmake", "--install", build.string(),
                                          "--prefix", "/usr"}, 120);
  ASSERT_TRUE(install.ok()) << install.stdout << install.stderr;
  const fs::path usr = destdir / "usr";
  for (const char* rel : {"bin/kestrel", "bin/KestrelAgent", "share/man/man1/kestrel.1", "share/man/man1/KestrelAgent.1",
                          "share/bash-completion/completions/kestrel", "share/zsh/vendor-completions/_kestrel",
                          "share/fish/vendor_completions.d/kestrel.fish", "share/doc/Kestrel/LICENSE"})
    EXPECT_TRUE(fs::is_regular_file(usr / rel)) << rel;
  for (const char* page : {"kestrel.1", "KestrelAgent.1"}) {
    const auto r = Shell::run("man", {"-l", (usr / "share/man/man1" / page).string()}, 60);
    EXPECT_TRUE(r.ok()) << page << r.stderr;
    EXPECT_NE(r.stdout.find("SYNOPSIS"), std::string::npos) << page;
  }
  const struct {
    const char* shell;
    const char* file;
  } completions[] = {{"bash", "share/bash-completion/completions/kestrel"},
                     {"zsh", "share/zsh/vendor-completions/_kestrel"},
                     {"fish", "share/fish/vendor_completions.d/kestrel.fish"}};
  for (const auto& c : completions) {
    if (!Shell::which(c.shell)) continue;
    const auto r = Shell::run(c.shell, {"-n", (usr / c.file).string()}, 60);
    EXPECT_TRUE(r.ok()) << c.shell << ": " << r.stderr;
  }
  EXPECT_NE(readText(usr / "share/bash-completion/completions/kestrel").find("\"quarantine\") words=\"list show restore purge"),
            std::string::npos);
}

}  // namespace
}  // namespace kestrel::test
