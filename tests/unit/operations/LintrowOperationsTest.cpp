#include "operations/LintrowOperations.h"

#include <fstream>

#include "MakerToolTest.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {
namespace {

using plist::Value;
using Arguments = std::vector<std::string>;

class LintrowOperationsTest : public testing::MakerToolTest {};

TEST_F(LintrowOperationsTest, OnlyResetReportsAMissingLintrowToTheAdmin) {
  harness.call("setLintrowPath:forKey:", {Value("/a"), Value("K")});
  EXPECT_TRUE(logged("Cannot find the location of the Lintrow application"));
  EXPECT_TRUE(events().empty());
  harness.call("resetLintrowPath:", {Value("K")});
  EXPECT_EQ(events(), std::vector<Value>{ambrantError(1000, "com.quorvane.Lintrow")});
}

TEST_F(LintrowOperationsTest, SettingAPathRunsKeyThenPathAndPostsAFailedExit) {
  install("Lintrow", "exit 3");
  harness.call("resetLintrowPath:", {Value("K")});
  EXPECT_EQ(ran("Lintrow"), (Arguments{"-resetpath", "K"}));
  EXPECT_FALSE(logged("Found application at path")); // the reset alone does not say
  harness.call("setLintrowPath:forKey:", {Value("/a"), Value("K")});
  EXPECT_EQ(ran("Lintrow"), (Arguments{"-setpath", "K", "/a"}));
  EXPECT_TRUE(logged("Found application at path"));
  EXPECT_TRUE(logged("Task failed"));
  EXPECT_EQ(events(), (std::vector<Value>{ambrantError(3), ambrantError(3)}));
}

TEST_F(LintrowOperationsTest, HostileValuesReachLintrowAsSingleArgumentsAndBadKindsAreRefused) {
  install("Lintrow");
  plist::Dictionary paths{{"$(touch x)", "; rm -rf ~"}};
  for (int i = 0; i < 10'000; ++i) {
    paths.set("-" + std::to_string(i), "\n");
  }
  harness.call("setLintrowPaths:", {Value(paths)});
  EXPECT_EQ(ran("Lintrow"), (Arguments{"-setallpaths", plist::describe(Value(paths))}));
  harness.call("setLintrowPath:forKey:", {Value("--\n/a b"), Value("-resetpath")});
  EXPECT_EQ(ran("Lintrow"), (Arguments{"-setpath", "-resetpath", "--\n/a b"}));

  EXPECT_THROW(harness.call("setLintrowPaths:", {Value(5)}), ArgumentError);
  EXPECT_THROW(harness.call("setLintrowPaths:", {Value()}), ArgumentError);
  EXPECT_THROW(harness.call("setLintrowPath:forKey:", {Value(), Value("K")}), ArgumentError);
  EXPECT_THROW(harness.call("resetLintrowPath:", {Value(plist::Array{})}), ArgumentError);
  EXPECT_TRUE(events().empty());
}

TEST_F(LintrowOperationsTest, PathsAreParsedAndEveryBadOutputAnswersNull) {
  std::filesystem::path output = harness.machine.root() / "output.plist";
  install("Lintrow", "cat '" + output.string() + "'");
  plist::Dictionary paths{{"Media", "/Volumes/Media"}};
  ASSERT_TRUE(plist::writeFile(output, Value(paths)).ok());
  EXPECT_EQ(harness.call("lintrowPaths"), Value(paths));
  EXPECT_EQ(ran("Lintrow"), Arguments{"-allpaths"});

  std::string huge = "<plist><string>" + std::string(50 << 20, 'a') + "</string></plist>";
  for (const std::string& text :
       {std::string("not a plist"), huge, std::string("<plist><array/></plist>")}) {
    std::ofstream(output, std::ios::trunc) << text;
    EXPECT_TRUE(harness.call("lintrowPaths").isNull());
  }
  EXPECT_TRUE(logged("Could not convert output of Lintrow task to dictionary"));
  install("Lintrow", "exit 137");
  EXPECT_TRUE(harness.call("lintrowPaths").isNull());
  EXPECT_TRUE(logged("No data from Lintrow task"));
}

} // namespace
} // namespace kestrin::operations
