#include "operations/FeldaneOperations.h"

#include <fstream>
#include <set>

#include "MakerToolTest.h"
#include "support/NamedException.h"

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using plist::Value;
using Arguments = std::vector<std::string>;

// Every path below a folder, links not followed.
std::set<std::string> treeOf(const fs::path& folder) {
  std::set<std::string> paths;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; it != end; it.increment(ec)) {
    paths.insert(it->path().lexically_relative(folder).string());
  }
  return paths;
}

class FeldaneOperationsTest : public testing::MakerToolTest {
protected:
  FeldaneOperationsTest() {
    install("Feldane");
    fs::create_directories(backup / "Preferences/ByHost");
    std::ofstream(backup / "Preferences/com.apple.FinalCutPro.plist") << "<plist/>";
    std::ofstream(backup / "Preferences/ByHost/x.plist") << std::string(100'000, 'x');
  }

  fs::path temporary() const { return harness.machine.paths().tempDirectory(); }
  fs::path backup = harness.machine.home() / "Backups/Edit Suite.pmb2";
};

TEST_F(FeldaneOperationsTest, ABackupSentAsZipIsUnpackedInTheTemporaryFolderAndRestored) {
  Value bytes = harness.call("feldaneBackupData:", {Value(backup.string())});
  ASSERT_TRUE(bytes.asData()) << harness.machine.logText();
  EXPECT_FALSE(fs::exists(backup.string() + ".zip")); // removed once read
  EXPECT_TRUE(logged("Removing compressed file..."));

  harness.call("feldaneRestoreRemoteBackup:", {bytes});
  auto restored = ran("Feldane");
  ASSERT_TRUE(restored && restored->size() == 2) << harness.machine.logText();
  EXPECT_EQ(restored->at(0), "-restore");
  fs::path unpacked = restored->at(1);
  EXPECT_EQ(unpacked.parent_path(), temporary());
  EXPECT_EQ(unpacked.extension(), ".pmb2");
  EXPECT_EQ(treeOf(unpacked), treeOf(backup));
  EXPECT_EQ(testing::readText(unpacked / "Preferences/ByHost/x.plist"), std::string(100'000, 'x'));
  // Both the archive and the unpacked backup stay.
  EXPECT_TRUE(fs::exists(fs::path(unpacked).replace_extension(".zip")));
}

TEST_F(FeldaneOperationsTest, OnlyABackupFolderIsSentAndAnUnzippableOneLeavesNothingNew) {
  fs::path top = backup.parent_path();
  std::ofstream(top / "notes.pmb2") << "a file";
  fs::create_directories(top / "Documents");
  fs::create_symlink(backup, top / "link.pmb2");
  // Deeper than the archive writer goes: ditto fails, and must leave no archive behind.
  fs::path deep = top / "Deep.pmb2";
  fs::path inner = deep;
  for (int i = 0; i < 520; ++i) {
    inner /= "d";
  }
  fs::create_directories(inner);
  auto before = treeOf(top);

  EXPECT_TRUE(harness.call("feldaneBackupData:", {Value()}).isNull());
  EXPECT_TRUE(logged("Unable to determine backup path"));
  EXPECT_TRUE(harness.call("feldaneBackupData:", {Value((top / "gone.pmb2").string())}).isNull());
  EXPECT_TRUE(logged("Unable to locate file " + (top / "gone.pmb2").string()));
  for (const char* refused : {"notes.pmb2", "Documents", "link.pmb2"}) {
    EXPECT_TRUE(harness.call("feldaneBackupData:", {Value((top / refused).string())}).isNull());
    EXPECT_TRUE(logged((top / refused).string() + " is not a Feldane backup")) << refused;
  }
  EXPECT_TRUE(harness.call("feldaneBackupData:", {Value(deep.string())}).isNull());
  EXPECT_TRUE(logged("Unable to compress backup " + deep.string()));
  EXPECT_EQ(treeOf(top), before);
  EXPECT_THROW(harness.call("feldaneBackupData:", {Value(plist::Dictionary{})}), ArgumentError);
}

TEST_F(FeldaneOperationsTest, BadRestoreBytesAreNeverRestoredAndLeaveNoArchive) {
  // Not a zip, nothing, and an empty zip (its end record alone). Entries that climb out with
  // "../" go through the running agent (PreferenceBackupTest).
  plist::Data empty{'P', 'K', 5, 6};
  empty.resize(22);
  for (const plist::Data& bytes :
       {plist::Data{'n', 'o', 't', ' ', 'z', 'i', 'p'}, plist::Data{}, empty}) {
    harness.call("feldaneRestoreRemoteBackup:", {Value(bytes)});
  }
  EXPECT_TRUE(logged("Unable to decompress backup"));
  EXPECT_TRUE(treeOf(temporary()).empty()) << harness.machine.logText();
  harness.call("feldaneRestoreRemoteBackup:", {Value()});
  EXPECT_TRUE(logged("Error: no backup data found"));
  EXPECT_FALSE(ran("Feldane")); // Feldane never ran
  EXPECT_THROW(harness.call("feldaneRestoreRemoteBackup:", {Value("PK")}), ArgumentError);
}

TEST_F(FeldaneOperationsTest, KeyListsAndSelectionsReachFeldaneAsSingleArguments) {
  std::string keys = "-restore\ncom.apple.FinalCutPro; $(rm -rf ~)";
  for (int i = 0; i < 10'000; ++i) {
    keys += "\nk" + std::to_string(i);
  }
  harness.call("feldaneTrashSelected:", {Value(keys)});
  EXPECT_EQ(ran("Feldane"), (Arguments{"-trash", "-allfiles", keys}));
  harness.call("feldaneUnlockSelected:", {Value("-k")});
  EXPECT_EQ(ran("Feldane"), (Arguments{"-unlock", "-k"}));
  harness.call("feldaneBackupSelected:",
               {Value(plist::Dictionary{{"backupName", "-B"}, {"keys", "a\nb"}})});
  EXPECT_EQ(ran("Feldane"), (Arguments{"-backup", "-B", "a\nb"}));
  // The type is only logged.
  harness.call("feldaneBackup:type:", {Value("Nightly"), Value(2)});
  EXPECT_TRUE(logged("Backing up preferences to Nightly with type 2"));
  EXPECT_EQ(ran("Feldane"), (Arguments{"-backup", "Nightly"}));

  fs::remove(argumentsOf("Feldane"));
  harness.call("feldaneLockSelected:", {Value()});
  EXPECT_TRUE(logged("Unable to determine key list"));
  EXPECT_FALSE(ran("Feldane"));
  EXPECT_THROW(harness.call("feldaneLockSelected:", {Value(7)}), ArgumentError);
  EXPECT_THROW(harness.call("feldaneBackupSelected:", {Value(plist::Dictionary{{"keys", 1}})}),
               ArgumentError);
  EXPECT_THROW(harness.call("feldaneBackup:type:", {Value("B"), Value("two")}), ArgumentError);
}

} // namespace
} // namespace kestrin::operations
