#include "foundation/QVLocalPaths.h"

#include <set>

#include <gtest/gtest.h>

namespace kestrin {
namespace {

QVLocalPaths::Machine machine(uid_t uid, std::optional<std::string> console = std::nullopt) {
  QVLocalPaths::Machine m;
  m.localRoot = "/";
  m.home = uid == 0 ? "/root" : "/home/editor";
  m.realUid = uid;
  m.ownUserName = uid == 0 ? "root" : "editor";
  m.tempDirectory = "/tmp";
  m.consoleUser = [console] { return console; };
  m.homeOfUser = [](const std::string& name) -> std::optional<std::string> {
    if (name == "alice") {
      return "/home/alice";
    }
    return std::nullopt;
  };
  return m;
}

TEST(QVLocalPaths, DomainsMapOntoTheLocalRootAndTheHome) {
  auto m = machine(1000);
  m.localRoot = "/srv/machine/";
  QVLocalPaths paths(m);
  EXPECT_EQ(paths.libraryDirectory(false), "/srv/machine/Library");
  EXPECT_EQ(paths.libraryDirectory(true), "/home/editor/Library");
  EXPECT_EQ(paths.prefsDirectory(true), "/home/editor/Library/Preferences");
  EXPECT_EQ(paths.logDirectory(false), "/srv/machine/Library/Logs");
  EXPECT_EQ(paths.applicationDirectory(false), "/srv/machine/Applications");
  EXPECT_EQ(paths.systemLibraryDirectory(), "/srv/machine/System/Library");
  EXPECT_EQ(paths.documentDirectory(true), "/home/editor/Documents");
  EXPECT_EQ(paths.documentDirectory(false), std::nullopt);
  EXPECT_EQ(paths.trashDirectory(), "/home/editor/.Trash");
  EXPECT_EQ(paths.username(), "editor");
  EXPECT_EQ(QVLocalPaths(machine(1000)).libraryDirectory(false), "/Library");
}

TEST(QVLocalPaths, AsRootTheUserDomainIsTheConsoleUsersHome) {
  QVLocalPaths paths(machine(0, "alice"));
  EXPECT_EQ(paths.userDirectory(), "/home/alice");
  EXPECT_EQ(paths.libraryDirectory(true), "/home/alice/Library");
  EXPECT_EQ(paths.prefsDirectory(true), "/home/alice/Library/Preferences");
  EXPECT_EQ(paths.movieDirectory(), "/home/alice/Movies");
  EXPECT_EQ(paths.trashDirectory(), "/home/alice/.Trash");
  EXPECT_EQ(paths.libraryDirectory(false), "/Library");
  EXPECT_EQ(paths.username(), "alice");
}

TEST(QVLocalPaths, AsRootWithNobodyAtTheConsoleItIsRootsOwnHome) {
  for (auto console : {std::optional<std::string>(), std::optional<std::string>("loginwindow")}) {
    QVLocalPaths paths(machine(0, console));
    EXPECT_EQ(paths.currentConsoleUser(), std::nullopt);
    EXPECT_EQ(paths.userDirectory(), "/root");
    EXPECT_EQ(paths.libraryDirectory(true), "/root/Library");
    EXPECT_EQ(paths.username(), std::nullopt);
  }
  // A console user the password database does not know has no home at all.
  QVLocalPaths unknown(machine(0, "ghost"));
  EXPECT_EQ(unknown.libraryDirectory(true), std::nullopt);
}

TEST(QVLocalPaths, ProtectedDirectoriesFollowTheirQuirks) {
  QVLocalPaths paths(machine(1000));
  EXPECT_TRUE(paths.isPathSystemDirectory("/"));
  EXPECT_FALSE(paths.isPathSystemDirectory("/a"));
  EXPECT_TRUE(paths.isPathSystemDirectory("/Applications"));
  EXPECT_FALSE(paths.isPathSystemDirectory("/Applications/"));
  EXPECT_TRUE(paths.isPathSystemDirectory("/usr/local/bin"));
  EXPECT_FALSE(paths.isPathSystemDirectory("/usr/local/bin", true));
  EXPECT_TRUE(paths.isPathSystemDirectory("/usrlocal"));
  EXPECT_TRUE(paths.isPathSystemDirectory("/Systems"));
  EXPECT_TRUE(paths.isPathSystemDirectory("/home/editor/Library/Preferences", true));
  EXPECT_TRUE(paths.isPathSystemDirectory("/home/editor", true));
  EXPECT_TRUE(paths.isPathSystemDirectory("/Users/Shared", true));
  EXPECT_TRUE(paths.isPathSystemDirectory("/Volumes", true));
  EXPECT_FALSE(paths.isPathSystemDirectory("/home/editor/Library/Preferences/x.plist"));
  EXPECT_FALSE(paths.isPathSystemDirectory("/home/editor/Movies/Project", true));
}

TEST(QVLocalPaths, TimeMachineVolumesAreRecognisedByTheirBackupFolder) {
  EXPECT_TRUE(QVLocalPaths::isPathOnTimeMachineVolume("/Volumes/TM/Backups.backupdb/mac/2011"));
  EXPECT_FALSE(QVLocalPaths::isPathOnTimeMachineVolume("/Backups.backupdb"));
  EXPECT_FALSE(QVLocalPaths::isPathOnTimeMachineVolume("/Volumes/TM/Backups.backupdb2/x"));
}

TEST(QVLocalPaths, RandomNamesUseTheirAlphabetAndLength) {
  EXPECT_EQ(QVLocalPaths::randomString(0), "");
  std::string eight = QVLocalPaths::randomString(8);
  ASSERT_EQ(eight.size(), 8u);
  EXPECT_EQ(eight.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos);

  std::string uuid = QVLocalPaths::uuid();
  ASSERT_EQ(uuid.size(), 36u);
  EXPECT_EQ(uuid.find_first_not_of("0123456789ABCDEF-"), std::string::npos);
  EXPECT_NE(uuid, QVLocalPaths::uuid());

  QVLocalPaths paths(machine(1000));
  std::string temp = paths.tempFile();
  EXPECT_EQ(temp.rfind("/tmp/", 0), 0u);
  EXPECT_EQ(temp.size(), 5u + 36 + 8);
}

} // namespace
} // namespace kestrin
