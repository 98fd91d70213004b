#include "platform/Workspace.h"

#include <gtest/gtest.h>

#include "fixtures/ThrowawayMachine.h"

namespace kestrin::platform {
namespace {

using testing::ThrowawayMachine;

TEST(Workspace, FindsABundleByIdentifierInTheApplicationsFoldersInOrder) {
  ThrowawayMachine machine;
  auto local =
      machine.makeBundle(machine.root() / "Applications", "Tibbet", "com.quorvane.Tibbet", "1.0");
  auto user = machine.makeBundle(machine.home() / "Applications", "Tibbet Copy",
                                 "com.quorvane.Tibbet", "2.0");
  auto utility = machine.makeBundle(machine.root() / "Applications/Utilities", "Hembry",
                                    "com.quorvane.Hembry", "1.0");
  Workspace workspace = Workspace::forMachine(machine.root().string(), machine.home().string());
  EXPECT_EQ(workspace.pathForBundleIdentifier("com.quorvane.Tibbet"), user.string());
  EXPECT_EQ(workspace.pathForBundleIdentifier("com.quorvane.Hembry"), utility.string());
  EXPECT_EQ(workspace.pathForBundleIdentifier("com.quorvane.tibbet"), std::nullopt);
  EXPECT_EQ(workspace.pathForBundleIdentifier("com.quorvane.Missing"), std::nullopt);

  auto bundle = Workspace::readBundle(local.string());
  ASSERT_TRUE(bundle.has_value());
  EXPECT_EQ(bundle->executablePath, (local / "Contents/MacOS/Tibbet").string());
  EXPECT_EQ(*bundle->info.find("CFBundleVersion"), plist::Value("1.0"));
}

TEST(Workspace, TheRunningProgramsOwnBundleComesFirst) {
  ThrowawayMachine machine;
  auto own =
      machine.makeBundle(machine.root() / "elsewhere", "Kestrin", "com.quorvane.Kestrin", "100");
  machine.makeBundle(machine.root() / "Applications", "Kestrin", "com.quorvane.Kestrin", "99");
  Workspace workspace({(machine.root() / "Applications").string()},
                      (own / "Contents/MacOS/Kestrin").string());
  EXPECT_EQ(workspace.pathForBundleIdentifier("com.quorvane.Kestrin"), own.string());
  ASSERT_TRUE(workspace.mainBundle().has_value());
  EXPECT_EQ(workspace.mainBundle()->path, own.string());

  Workspace loose({}, (machine.root() / "bin/kestrin").string());
  EXPECT_EQ(loose.mainBundle(), std::nullopt);
}

} // namespace
} // namespace kestrin::platform
