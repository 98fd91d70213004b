// The plug-in operations where a folder refuses the agent's writes: locking a folder needs root.

#include "operations/PluginOperations.h"

#include "PluginOperationsFixture.h"
#include "platform/FileFlags.h"

namespace kestrin::operations::plugin_test {
namespace {

// Changing the locked flag of a folder needs root; the locked folder then refuses every
// write, as a folder that only an administrator may write refuses the agent's user.
class LockedPluginFolder : public PluginOperationsTest {
protected:
  void SetUp() override {
    glow = bundle(computerFx(), "Glow", "1.0");
    fs::create_directories(home() / "Documents");
    if (!platform::FileFlags::setImmutable(computerFx().string(), true).ok()) {
      GTEST_SKIP() << "locking a folder needs root";
    }
  }
  void TearDown() override {
    (void)platform::FileFlags::setImmutable(computerFx().string(), false);
  }
  fs::path glow;
};

TEST_F(LockedPluginFolder, AnUpdateClimbsTheLadderAndStopsBeforeTrashingWithoutRights) {
  plist::Dictionary settings{{"obj1", plist::Dictionary{{"fullPath", glow.string()}}},
                             {"obj2", archiveOf("Glow", "2.0")}};
  call("vantryUpdatePlugin:settings:", {Value(), settings});
  EXPECT_TRUE(logged("Unable to write plugin data to disk. Authorizing..."));
  EXPECT_TRUE(logged("Unable to trash old file " + glow.string() + ". Authorizing..."));
  EXPECT_TRUE(logged("Unable to trash old file " + glow.string() + "."));
  EXPECT_EQ(readText(glow / "Contents/MacOS/Glow"), "binary of Glow 1.0");
  EXPECT_FALSE(fs::exists(home() / "Documents/Glow.fxplug.zip"));

  // Credentials that do not open: error 1006, and the update goes on as far as it can.
  plist::Dictionary credentials{{"authUser", "nobody-here"},
                                {"authPass", QVEncryption::encryptPassword("wrong")}};
  callMovingTheClock("vantryUpdatePlugin:settings:", {credentials, settings});
  EXPECT_TRUE(gotError(1006));
  EXPECT_EQ(readText(glow / "Contents/MacOS/Glow"), "binary of Glow 1.0");
}

TEST_F(LockedPluginFolder, AdminAccessIsNeededWhereTheDestinationRefusesWrites) {
  auto needs = [&](const Value& records, const Value& destination) {
    return call("vantryNeedsAdminAccess:settings:", {records, destination});
  };
  fs::path mine = bundle(userFx(), "Mine", "1.0");
  Value userRecord = plist::Dictionary{{"fullPath", mine.string()}, {"type", "FxPlug"}};
  Value lockedRecord = plist::Dictionary{{"fullPath", glow.string()}, {"type", "FxPlug"}};
  EXPECT_EQ(needs(plist::Array{userRecord}, plist::Dictionary{{"destAccess", 1}}), Value(false));
  EXPECT_EQ(needs(plist::Array{lockedRecord}, Value()), Value(true));
  // Moving into the locked computer-wide folder, or into its sub-folder that does not exist
  // yet (its nearest existing folder decides).
  EXPECT_EQ(needs(plist::Array{userRecord}, plist::Dictionary{{"destAccess", 0}}), Value(true));
  fs::path acme = bundle(userFx() / "Acme", "Tool", "1.0");
  EXPECT_EQ(needs(plist::Array{plist::Dictionary{{"fullPath", acme.string()}, {"type", "FxPlug"}}},
                  plist::Dictionary{{"destAccess", 0}}),
            Value(true));
  // The disabled copy of the folder does not exist; the Library above it is writable.
  EXPECT_EQ(
      needs(plist::Array{userRecord}, plist::Dictionary{{"destAccess", 0}, {"destDisabled", true}}),
      Value(false));
  // Other types, malformed records and none at all need nothing.
  EXPECT_EQ(needs(plist::Array{plist::Dictionary{{"fullPath", mine.string()}, {"type", "VST"}},
                               Value("x"), plist::Dictionary{{"type", "FxPlug"}}},
                  plist::Dictionary{{"destAccess", 0}}),
            Value(false));
  EXPECT_EQ(needs(Value(), Value()), Value(false));
}

} // namespace
} // namespace kestrin::operations::plugin_test
