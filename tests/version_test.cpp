// The version the library reports, and the command's --version.
#include <string>

#include "kystore/version.h"
#include "support/cli_fixture.h"

namespace kytest {
namespace {

TEST(Version, LibraryReportsTheVersionItsHeadersName) {
  EXPECT_EQ(std::to_string(KYSTORE_VERSION_MAJOR) + "." + std::to_string(KYSTORE_VERSION_MINOR) +
                "." + std::to_string(KYSTORE_VERSION_PATCH),
            KYSTORE_VERSION);
  EXPECT_STREQ(kyVersion(), KYSTORE_VERSION);
}

TEST_P(Cli, VersionOptionPrintsTheLibraryVersion) {
  EXPECT_EQ(Ok({"--version"}), std::string("kystore ") + KYSTORE_VERSION + "\n");
}

// The option does not depend on the storage's width: one run is enough.
INSTANTIATE_TEST_SUITE_P(OneWidth, Cli, ::testing::Values(true));

}  // namespace
}  // namespace kytest
