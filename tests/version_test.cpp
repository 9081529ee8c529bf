// The command's --version names the library it runs with.  (Programs built
// against the installed library check kyVersion() in tests/install.)
#include <string>

#include "kystore/version.h"
#include "support/cli_fixture.h"

namespace kytest {
namespace {

TEST_P(Cli, VersionOptionPrintsTheLibraryVersion) {
  EXPECT_EQ(Ok({"--version"}), std::string("kystore ") + kyVersion() + "\n");
  EXPECT_STREQ(kyVersion(), KYSTORE_VERSION);
}

// The option does not depend on the storage's width: one run is enough.
INSTANTIATE_TEST_SUITE_P(OneWidth, Cli, ::testing::Values(true));

}  // namespace
}  // namespace kytest
