#include "foundation/QVFileManager.h"

#include <ctime>
#include <fstream>
#include <future>
#include <thread>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures/ThrowawayMachine.h"
#include "foundation/FileTree.h"
#include "foundation/FinderInfo.h"
#include "foundation/QVAuthorization.h"
#include "foundation/WildcardMatcher.h"
#include "platform/ManualClock.h"
#include "platform/ToolTable.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::readText;
using testing::writeText;
using Names = std::vector<std::string>;

class QVFileManagerTest : public ::testing::Test {
protected:
  QVFileManager::Environment environment() { return {machine.paths(), tools, clock}; }
  fs::path trash() const { return machine.paths().trashDirectory().value(); }
  std::string at(const std::string& relative) const { return (work / relative).string(); }
  Names namesIn(const fs::path& folder) const {
    Names names;
    for (const auto& entry : fs::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  // Runs work on another thread and moves the clock on in steps until it returns: answers its
  // result and how many seconds of the clock it took.
  std::pair<bool, double> whileAdvancing(std::function<bool()> work, double step = 0.1) {
    auto done = std::async(std::launch::async, std::move(work));
    double advanced = 0;
    while (done.wait_for(3ms) != std::future_status::ready && advanced < 600) {
      clock.advanceSeconds(step);
      advanced += step;
    }
    return {done.get(), advanced};
  }
  static bool userAttributesWork(const fs::path& path) {
    return ::setxattr(path.c_str(), "user.kestrin.probe", "1", 1, 0) == 0;
  }
  std::string stamp() const {
    std::time_t now = static_cast<std::time_t>(clock.date().toUnix());
    std::tm local{};
    localtime_r(&now, &local);
    char text[16];
    std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &local);
    return text;
  }

  testing::ThrowawayMachine machine;
  fs::path work = machine.root() / "work";
  platform::ManualClock clock;
  platform::ToolTable tools{
      {platform::Tool::Ditto,
       machine.makeRecordingTool("ditto", "for last; do :; done; mkdir -p \"$last\"\n").string()},
      {platform::Tool::Touch, machine.makeRecordingTool("touch").string()}};
  // What a root agent may do for its own work: run the tools directly.
  QVAuthorization rootAuthorization{{machine.paths(), tools, true}, false};
  QVAuthorization::Session rootRights = rootAuthorization.authStart();
};

TEST_F(QVFileManagerTest, NamesSizesAndColoursFollowTheirRules) {
  EXPECT_EQ(QVFileManager::validateFilename("."), "");
  EXPECT_EQ(QVFileManager::validateFilename(".  a/b:c  "), "abc");
  EXPECT_EQ(QVFileManager::validateFilename("..x"), ".x");
  EXPECT_EQ(QVFileManager::validateFilename("\n re:port\r\n"), "report");

  writeText(work / "report", "x");
  writeText(work / "r.txt", "x");
  writeText(work / "r 2.txt", "x");
  EXPECT_EQ(QVFileManager::uniqueFilename(at("report")), at("report 2"));
  EXPECT_EQ(QVFileManager::uniqueFilename(at("r.txt")), at("r 3.txt"));
  EXPECT_EQ(QVFileManager::uniqueFilename(at("free.txt")), at("free.txt"));

  EXPECT_EQ(QVFileManager::formatFileSize(1023), "1023 B");
  EXPECT_EQ(QVFileManager::formatFileSize(1024), "1.00 KB");
  EXPECT_EQ(QVFileManager::formatFileSize(1048576), "1.00 MB");
  EXPECT_EQ(QVFileManager::formatFileSize(1073741824), "1.00 GB");

  EXPECT_EQ(QVFileManager::finderColorForColorIndex(3), QVFileManager::finderColorForColorIndex(2));
  EXPECT_EQ(QVFileManager::finderColorForColorIndex(12),
            (QVFileManager::FinderColor{0.0083, 0.54, 1.0}));
  for (std::uint16_t none : {0, 1, 15, 16}) {
    EXPECT_FALSE(QVFileManager::finderColorForColorIndex(none)) << none;
  }
}

TEST_F(QVFileManagerTest, FolderEmptinessAndSizeNeverFollowLinksOrGoTooDeep) {
  fs::create_directories(work / "a/empty/deeper");
  writeText(work / "a/.DS_Store", "x");
  writeText(work / "a/Icon\r", "x");
  EXPECT_TRUE(QVFileManager::isFolderEmpty(at("a")));
  fs::create_directories(work / "b/sub");
  writeText(work / "b/.DS_Store", "x");
  EXPECT_TRUE(QVFileManager::isFolderEmpty(at("b")));
  writeText(work / "b/sub/file", "x");
  EXPECT_FALSE(QVFileManager::isFolderEmpty(at("b")));
  EXPECT_FALSE(QVFileManager::isFolderEmpty(at("b/sub/file")));
  // A link to a folder is an entry like a file, not a folder to look into.
  fs::create_directories(work / "c");
  fs::create_directory_symlink(work / "a", work / "c/link");
  EXPECT_FALSE(QVFileManager::isFolderEmpty(at("c")));

  fs::path deep = work / "deep";
  for (int i = 0; i <= FileTree::kDepthLimit; ++i) {
    deep /= "d";
  }
  fs::create_directories(deep);
  EXPECT_FALSE(QVFileManager::isFolderEmpty(at("deep")));

  writeText(work / "sized/one", std::string(1000, 'x'));
  writeText(work / "sized/sub/two", std::string(24, 'x'));
  fs::create_directory_symlink(work / "a", work / "sized/link");
  std::uint64_t link = fs::read_symlink(work / "sized/link").string().size();
  EXPECT_EQ(QVFileManager::fileSize(at("sized")), 1024 + link);
  EXPECT_EQ(QVFileManager::fileSize(at("missing")), 0u);
}

TEST_F(QVFileManagerTest, VolumePathsNeedTheirVolumeAndNothingElse) {
  EXPECT_TRUE(QVFileManager::isVolumeMountedForPath("/Users/x/y"));
  EXPECT_TRUE(QVFileManager::isVolumeMountedForPath("/Volumes/"));
  EXPECT_FALSE(QVFileManager::isVolumeMountedForPath("/Volumes/KestrinMissing/x"));
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(QVFileManager::isDriveMountedForPath("/Volumes/KestrinMissing/x"));
  EXPECT_FALSE(QVFileManager::createDirectory("/Volumes/KestrinMissing/x", true, &rootRights));
  std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(console.find("mountpoint: /Volumes/KestrinMissing"), std::string::npos) << console;
  EXPECT_NE(console.find("Unable to create directory. Drive is not mounted."), std::string::npos);
  EXPECT_EQ(machine.logText().find("Error creating folder"), std::string::npos); // no escalation

  const Names volumes = {"/", "/Volumes/Media", "/srv", "/srv/cache"};
  EXPECT_EQ(QVFileManager::volumeMountPointForPath("/Volumes/Media/clip.mov", volumes),
            "/Volumes/Media");
  EXPECT_EQ(QVFileManager::volumeMountPointForPath("/srv/cache/x", volumes), "/srv/cache");
  EXPECT_EQ(QVFileManager::volumeMountPointForPath("/srvx", volumes), "/");
  EXPECT_EQ(QVFileManager::volumeMountPointForPath("/Volumes/Gone/x", volumes), std::nullopt);
}

TEST_F(QVFileManagerTest, TrashKeepsNamesAndStampsATakenOneWithTheClocksDate) {
  EXPECT_TRUE(QVFileManager::trashFile(at("missing"), true, nullptr, environment()));
  EXPECT_FALSE(fs::exists(trash()));

  for (int round = 0; round < 2; ++round) {
    writeText(work / "report.txt", "x");
    writeText(work / "notes", "x");
    EXPECT_TRUE(QVFileManager::trashFile(at("report.txt"), true, nullptr, environment()));
    EXPECT_TRUE(QVFileManager::trashFile(at("notes"), false, nullptr, environment()));
  }
  EXPECT_EQ(namesIn(trash()),
            (Names{"notes", "notes_" + stamp() + ".", "report.txt", "report_" + stamp() + ".txt"}));

  // Walks trash files by extension (any case) or name, never the folders on the way.
  fs::remove_all(trash());
  writeText(work / "logs/a.LOG", "x");
  writeText(work / "logs/sub/b.log", "x");
  writeText(work / "logs/sub/keep.txt", "x");
  fs::create_directories(work / "logs/folder.log");
  auto trashed = QVFileManager::trashFilesOfType("log", at("logs"), nullptr, environment());
  EXPECT_EQ(trashed, (Names{at("logs/a.LOG"), at("logs/sub/b.log")}));
  EXPECT_TRUE(fs::exists(work / "logs/folder.log"));
  EXPECT_EQ(QVFileManager::trashFilesNamed("keep.txt", at("logs"), nullptr, environment()),
            Names{at("logs/sub/keep.txt")});
  EXPECT_TRUE(QVFileManager::trashDirectoryContents(at("logs"), true, nullptr, environment()));
  EXPECT_TRUE(fs::is_empty(work / "logs"));
}

TEST_F(QVFileManagerTest, EscalationLogLinesKeepTheirDeliberateDifferences) {
  writeText(work / "file", "x");
  writeText(work / "taken", "x");
  fs::path deep = work / "deep";
  for (int i = 0; i <= FileTree::kDepthLimit; ++i) {
    deep /= "d";
  }
  fs::create_directories(deep);
  writeText(trash(), "a file where the trash folder should be");

  EXPECT_FALSE(QVFileManager::createDirectory(at("file/sub"), false));
  EXPECT_FALSE(QVFileManager::copyFile(at("file"), at("taken"), false));
  EXPECT_FALSE(QVFileManager::removeFile(at("deep"), false));
  EXPECT_FALSE(QVFileManager::moveFile(at("file"), at("taken"), false));
  std::string log = machine.logText();
  EXPECT_NE(
      log.find("Error creating folder: " + at("file/sub") + ": Not a directory. Authorizing..."),
      std::string::npos)
      << log;
  EXPECT_NE(log.find("Error copying file: " + at("taken") + ": File exists. Authorizing..."),
            std::string::npos);
  EXPECT_NE(log.find("nested too deeply. Authorizing..."), std::string::npos);
  EXPECT_NE(log.find("Error moving file: " + at("taken") + ": File exists."), std::string::npos);
  EXPECT_EQ(log.find("Authorizing...\n", log.find("Error moving file")), std::string::npos);

  EXPECT_FALSE(QVFileManager::moveFile(at("file"), at("taken"), true));
  log = machine.logText();
  EXPECT_NE(log.find("Authorizing...", log.rfind("Error moving file")), std::string::npos);
  EXPECT_FALSE(QVFileManager::trashFile(at("file"), true, nullptr, environment()));
  EXPECT_EQ(machine.logText(), log) << "trashing logs nothing before escalating";
  EXPECT_TRUE(fs::exists(work / "file"));
}

TEST_F(QVFileManagerTest, CopiesAndMovesKeepWhatTheyMoveAndNeverReplace) {
  writeText(work / "src/tool", "#!/bin/sh\n");
  ::chmod((work / "src/tool").c_str(), 04755);
  fs::create_symlink("/etc/passwd", work / "src/outside");
  fs::last_write_time(work / "src/tool", fs::file_time_type(std::chrono::hours(400000)));
  bool attributes = userAttributesWork(work / "src/tool");

  ASSERT_TRUE(QVFileManager::copyFile(at("src"), at("copy"), false));
  struct stat status {};
  ASSERT_EQ(::stat(at("copy/tool").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u) << "the set-id bit is not copied";
  EXPECT_EQ(fs::last_write_time(work / "copy/tool"), fs::last_write_time(work / "src/tool"));
  EXPECT_EQ(fs::read_symlink(work / "copy/outside"), "/etc/passwd");
  if (attributes) {
    char value[4] = {};
    EXPECT_EQ(::getxattr(at("copy/tool").c_str(), "user.kestrin.probe", value, sizeof value), 1);
  }
  EXPECT_FALSE(QVFileManager::copyFile(at("src/tool"), at("copy/tool"), false));
  EXPECT_FALSE(QVFileManager::copyFile(at("src"), at("src/inside"), false));
  EXPECT_FALSE(fs::exists(work / "src/inside"));
  EXPECT_FALSE(QVFileManager::moveFile(at("src/tool"), at("copy/tool"), false));
  EXPECT_EQ(readText(work / "copy/tool"), "#!/bin/sh\n");

  // A move that changes only the case, and one to another file system.
  writeText(work / "Foo", "foo");
  EXPECT_TRUE(QVFileManager::moveFile(at("Foo"), at("foo")));
  EXPECT_EQ(namesIn(work), (Names{"copy", "foo", "src"}));
  struct stat shm {
  }, here{};
  if (::stat("/dev/shm", &shm) == 0 && ::stat(work.c_str(), &here) == 0 &&
      shm.st_dev != here.st_dev && ::access("/dev/shm", W_OK) == 0) {
    std::string elsewhere = "/dev/shm/kestrin-move-" + std::to_string(::getpid());
    ASSERT_TRUE(QVFileManager::moveFile(at("copy"), elsewhere));
    EXPECT_FALSE(fs::exists(work / "copy"));
    EXPECT_EQ(fs::read_symlink(elsewhere + "/outside"), "/etc/passwd");
    EXPECT_TRUE(QVFileManager::removeFile(elsewhere));
    EXPECT_FALSE(fs::exists(elsewhere));
  }
}

TEST_F(QVFileManagerTest, NewLinesColonsAndBytesThatAreNotUtf8AreOrdinaryNames) {
  const Names names = {"line\nbreak.txt", "colon:name.txt", "bad\xff\xfe.txt"};
  for (const auto& name : names) {
    writeText(work / "in" / name, name);
  }
  auto matches = QVFileManager::filesMatchingWildcardPath("*.txt", at("in"));
  ASSERT_EQ(matches.size(), 3u);
  for (const auto& name : names) {
    std::string from = at("in/" + name);
    ASSERT_TRUE(QVFileManager::copyFile(from, at("copy " + name)));
    ASSERT_TRUE(QVFileManager::moveFile(at("copy " + name), at("moved " + name)));
    EXPECT_EQ(readText(work / ("moved " + name)), name);
    EXPECT_TRUE(QVFileManager::trashFile(from, true, nullptr, environment()));
    EXPECT_TRUE(fs::exists(trash() / name));
    EXPECT_TRUE(QVFileManager::removeFile(at("moved " + name)));
    EXPECT_FALSE(
        QVFileManager::copyFile((trash() / name).string(), (trash() / name).string(), false));
  }
  std::string log = machine.logText();
  EXPECT_NE(log.find("line\\nbreak.txt"), std::string::npos);
  EXPECT_NE(log.find("bad\\xff\\xfe.txt"), std::string::npos);
  EXPECT_EQ(log.find("\nbreak.txt"), std::string::npos) << "a name cannot start a log line";
}

TEST_F(QVFileManagerTest, TimeoutVariantsPollTheEndStateOnTheClock) {
  // As root the rights only start the copy and answer at once, so the end state comes later:
  // here when the test makes it, or never.
  platform::ToolTable lazyCopy{{platform::Tool::Cp, "/bin/true"}};
  QVAuthorization lazyAuthorization{{machine.paths(), lazyCopy, true}, false};
  QVAuthorization::Session lazyRights = lazyAuthorization.authStart();
  writeText(work / "source", "x");
  auto [gaveUp, waited] = whileAdvancing([&] {
    return QVFileManager::copyFile(at("source"), at("nowhere/copy"), 10s, &lazyRights,
                                   environment());
  });
  EXPECT_FALSE(gaveUp);
  EXPECT_GE(waited, 9.9);

  auto done = std::async(std::launch::async, [&] {
    return QVFileManager::copyFile(at("source"), at("later/copy"), 10s, &lazyRights, environment());
  });
  // Once the ordinary attempt has failed, the copy shows up three seconds into the wait.
  while (machine.logText().find(at("later/copy")) == std::string::npos) {
    std::this_thread::sleep_for(3ms);
  }
  clock.advanceSeconds(3);
  writeText(work / "later/copy", "x");
  double later = 3;
  while (done.wait_for(3ms) != std::future_status::ready) {
    clock.advanceSeconds(0.3);
    later += 0.3;
  }
  EXPECT_TRUE(done.get());
  EXPECT_LT(later, 9);

  writeText(work / "Case", "x");
  auto [renamed, paused] = whileAdvancing(
      [&] { return QVFileManager::moveFile(at("Case"), at("case"), 10s, nullptr, environment()); },
      0.001);
  EXPECT_TRUE(renamed);
  EXPECT_EQ(namesIn(work), (Names{"case", "later", "source"}));
  EXPECT_TRUE(QVFileManager::removeFile(at("case"), 10s, nullptr, environment()));
  EXPECT_FALSE(QVFileManager::createDirectory(at("source/x"), 10s, nullptr, environment()));
}

TEST_F(QVFileManagerTest, WaitsForOtherWritersOnTheClock) {
  writeText(work / "fresh.mov", "x");
  auto [returned, waited] = whileAdvancing([&] {
    QVFileManager::waitForFileWrites(at("fresh.mov"), std::nullopt, clock);
    return true;
  });
  EXPECT_GE(waited, 3.5);
  std::string log = machine.logText();
  EXPECT_NE(log.find("File " + at("fresh.mov") + " is currently being written to. Waiting..."),
            std::string::npos);
  EXPECT_NE(log.find("File " + at("fresh.mov") + " finished writing."), std::string::npos);

  writeText(work / "old.mov", "x");
  fs::last_write_time(work / "old.mov", fs::file_time_type::clock::now() - 1h);
  writeText(work / "future.mov", "x");
  fs::last_write_time(work / "future.mov", fs::file_time_type::clock::now() + 24h);
  QVFileManager::waitForFileWrites(at("old.mov"), "old.lock", clock);
  QVFileManager::waitForFileWrites(at("future.mov"), std::nullopt, clock);
  EXPECT_EQ(machine.logText().find("old.mov"), std::string::npos);
  writeText(work / "old.lock", "");
  whileAdvancing([&] {
    QVFileManager::waitForFileWrites(at("old.mov"), "old.lock", clock);
    return true;
  });
  EXPECT_NE(machine.logText().find("File " + at("old.mov") + " finished writing."),
            std::string::npos);

  auto [checked, creationWait] = whileAdvancing(
      [&] {
        QVFileManager::waitForFileCreation(at("never.mov"), 60s, clock);
        return true;
      },
      0.001);
  EXPECT_LT(creationWait, 1) << "one look and one short pause, whatever the timeout";
  EXPECT_NE(machine.logText().find("File " + at("never.mov") + " is not yet created. Waiting..."),
            std::string::npos);
}

TEST_F(QVFileManagerTest, WildcardsMatchComponentByComponentWithoutFollowingLinks) {
  writeText(work / "x/a.txt", "");
  writeText(work / "x/b.txt", "");
  writeText(work / "x/c.log", "");
  writeText(work / "Apps/Adobe Premiere Pro 2.app/Contents/Info.plist", "");
  writeText(work / "Apps/Adobe Premiere Pro CS5.app/Contents/Info.plist", "");
  writeText(work / "elsewhere/Contents/Info.plist", "");
  fs::create_directory_symlink(work / "elsewhere", work / "Apps/Adobe Premiere Pro Link.app");

  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath("*.txt", at("x")),
            (Names{at("x/a.txt"), at("x/b.txt")}));
  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath("none.txt", at("x")), Names{at("x/none.txt")});
  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath("Adobe Premiere Pro *.app/Contents/*.plist",
                                                     at("Apps")),
            (Names{at("Apps/Adobe Premiere Pro 2.app/Contents/Info.plist"),
                   at("Apps/Adobe Premiere Pro CS5.app/Contents/Info.plist")}));
  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath(at("x") + "/*?.txt").size(), 2u);
  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath(at("x") + "/?.txt"), Names{at("x/?.txt")});
  EXPECT_EQ(QVFileManager::decodeWildcardPath("*.mov", at("x")), at("x/*.mov"));
  EXPECT_TRUE(WildcardMatcher("caf?.txt").matches("caf\xc3\xa9.txt")); // one character, two bytes
  EXPECT_FALSE(WildcardMatcher("caf?.txt").matches("caf\xc3\xa9\xc3\xa9.txt"));
  EXPECT_TRUE(WildcardMatcher("*").matches(".DS_Store"));
}

TEST_F(QVFileManagerTest, HostileWildcardPatternsStayBounded) {
  // Every "*" of a long pattern over a deep chain of folders, each folder listed once.
  fs::path deep = work / "deep";
  for (int i = 0; i < 300; ++i) {
    deep /= "d";
  }
  fs::create_directories(deep);
  std::string stars;
  for (int i = 0; i < 280; ++i) {
    stars += i == 0 ? "*" : "/*";
  }
  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath(stars, at("deep")).size(), 1u);
  EXPECT_TRUE(QVFileManager::filesMatchingWildcardPath(stars + stars, at("deep")).empty());

  // "*/.." spells one folder thirty ways; repeated, it would multiply without the dedup.
  for (int i = 0; i < 30; ++i) {
    fs::create_directories(work / "wide" / std::to_string(i));
  }
  std::string climbs;
  for (int i = 0; i < 40; ++i) {
    climbs += "*/../";
  }
  EXPECT_EQ(QVFileManager::filesMatchingWildcardPath(climbs + "*", at("wide")).size(), 30u);

  std::string name(200, 'a');
  EXPECT_FALSE(WildcardMatcher("*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b").matches(name));
  EXPECT_FALSE(WildcardMatcher(std::string(5000, '?')).matches(name));
}

TEST_F(QVFileManagerTest, FinderLabelsLiveInTheBigEndianFlagsWordOfTheAttribute) {
  writeText(work / "clip.mov", "x");
  if (!userAttributesWork(work / "clip.mov")) {
    GTEST_SKIP() << "no user extended attributes on this file system";
  }
  std::uint8_t raw[FinderInfo::kSize] = {};
  raw[8] = 0x40; // the invisible bit, in the high byte of the flags word
  raw[9] = 0x0C;
  ASSERT_EQ(::setxattr(at("clip.mov").c_str(), FinderInfo::kAttributeName, raw, sizeof raw, 0), 0);
  EXPECT_EQ(QVFileManager::finderColorIndexForPath(at("clip.mov")), 0x400C);
  EXPECT_FALSE(QVFileManager::finderColorForPath(at("clip.mov"))) << "other flags: no colour";

  ASSERT_TRUE(QVFileManager::setFinderColorIndex(0x0003, at("clip.mov")));
  EXPECT_EQ(QVFileManager::finderColorIndexForPath(at("clip.mov")), 0x4002);
  ASSERT_EQ(::getxattr(at("clip.mov").c_str(), FinderInfo::kAttributeName, raw, sizeof raw), 32);
  EXPECT_EQ(raw[8], 0x40);
  EXPECT_EQ(raw[9], 0x02);

  ASSERT_EQ(::setxattr(at("clip.mov").c_str(), FinderInfo::kAttributeName, raw, 5, 0), 0);
  EXPECT_EQ(QVFileManager::finderColorIndexForPath(at("clip.mov")), 0) << "malformed: none";
  EXPECT_EQ(QVFileManager::finderColorIndexForPath(at("missing")), 0);
  EXPECT_FALSE(QVFileManager::setFinderColorIndex(2, std::nullopt));

  fs::create_directories(work / "Plain");
  fs::create_directories(work / "Tool.app");
  EXPECT_TRUE(QVFileManager::isPackageAtPath(at("Tool.app")));
  EXPECT_FALSE(QVFileManager::isPackageAtPath(at("Plain")));
  raw[8] = FinderInfo::kHasBundle >> 8;
  raw[9] = 0;
  ASSERT_EQ(::setxattr(at("Plain").c_str(), FinderInfo::kAttributeName, raw, 32, 0), 0);
  EXPECT_TRUE(QVFileManager::isPackageAtPath(at("Plain")));
}

TEST_F(QVFileManagerTest, MetadataIsUtf8TextOfAtMost255BytesInUserAttributes) {
  writeText(work / "clip.mov", "x");
  if (!userAttributesWork(work / "clip.mov")) {
    GTEST_SKIP() << "no user extended attributes on this file system";
  }
  const std::string comment = "Szene 1 – Übergang";
  ASSERT_TRUE(QVFileManager::setMetadataValue(comment, "com.quorvane.comment", at("clip.mov")));
  char raw[64] = {};
  EXPECT_GT(::getxattr(at("clip.mov").c_str(), "user.com.quorvane.comment", raw, sizeof raw), 0);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(QVFileManager::metadataValueForKey("com.quorvane.comment", at("clip.mov")), comment);
  EXPECT_EQ(QVFileManager::metadataValueForKey("com.quorvane.missing", at("clip.mov")),
            std::nullopt);
  ASSERT_TRUE(QVFileManager::setMetadataValue(std::string(256, 'x'), "long", at("clip.mov")));
  EXPECT_EQ(QVFileManager::metadataValueForKey("long", at("clip.mov")), std::nullopt);
  ASSERT_TRUE(QVFileManager::setMetadataValue("\xff\xfe", "binary", at("clip.mov")));
  EXPECT_EQ(QVFileManager::metadataValueForKey("binary", at("clip.mov")), std::nullopt);
  std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(console.find("buffer val: " + std::to_string(comment.size())), std::string::npos)
      << console;
  EXPECT_NE(console.find("buffer val: -1\n"), std::string::npos);
  EXPECT_NE(console.find("Error retrieving file attribute: " + std::to_string(ENODATA)),
            std::string::npos);
}

TEST_F(QVFileManagerTest, DigestsFinishACopyOfTheRunningContext) {
  Md5Context md5;
  Sha1Context sha1;
  md5.update("a");
  sha1.update("a");
  EXPECT_EQ(QVFileManager::md5HashWithContext(md5), "0cc175b9c0f1b6a831c399e269772661");
  md5.update("bc");
  sha1.update("bc");
  EXPECT_EQ(QVFileManager::md5HashWithContext(md5), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(QVFileManager::sha1HashWithContext(sha1), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(QVFileManager::sha1HashWithContext(Sha1Context()),
            "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(QVFileManagerTest, ArchivesGoThroughDittoAndReplaceWhatWasThere) {
  writeText(work / "backup/prefs.plist", "x");
  writeText(work / "backup.zip", "old archive");
  EXPECT_TRUE(
      QVFileManager::compressFile(at("backup"), at("backup.zip"), true, nullptr, environment()));
  EXPECT_EQ(readText(trash() / "backup.zip"), "old archive");
  fs::create_directories(work / "restored/old");
  EXPECT_TRUE(QVFileManager::decompressFile(at("backup.zip"), at("restored"), environment()));
  EXPECT_TRUE(fs::exists(trash() / "restored/old"));
  EXPECT_FALSE(QVFileManager::decompressFile("-x.zip", "", environment()));
  EXPECT_EQ(readText(machine.commandLog()), "ditto -ck --keepParent " + at("backup") + " " +
                                                at("backup.zip") + "\n" + "ditto -xk " +
                                                at("backup.zip") + " " + at("restored") + "\n" +
                                                "ditto -xk ./-x.zip \n");
}

TEST_F(QVFileManagerTest, TouchCreateAndStructureStayWhereTheyAreAimed) {
  fs::create_directories(work);
  EXPECT_TRUE(QVFileManager::createEmptyFile(at("empty"), nullptr, environment()));
  EXPECT_EQ(fs::file_size(work / "empty"), 0u);
  EXPECT_TRUE(QVFileManager::touchFile(at("empty"), true, nullptr, environment()));
  EXPECT_FALSE(QVFileManager::touchFile(std::nullopt, false, nullptr, environment()));
  EXPECT_EQ(readText(machine.commandLog()), "touch -c -- " + at("empty") + "\n");
  auto born = QVFileManager::creationDateForFile(at("empty"));
  ASSERT_TRUE(born);
  EXPECT_NEAR(born->seconds, plist::Date::now().seconds, 60);
  EXPECT_TRUE(QVFileManager::setModificationDate(plist::Date{0}, at("empty")));
  EXPECT_EQ(
      fs::last_write_time(work / "empty").time_since_epoch(),
      fs::file_time_type::clock::from_sys(std::chrono::sys_seconds(978307200s)).time_since_epoch());

  fs::path target = work / "mirror";
  writeText(work / "src/Library/Preferences/x.plist", "x");
  EXPECT_EQ(QVFileManager::createDirectoryStructure(at("src/Library/Preferences/x.plist"),
                                                    target.string()),
            (target / work.relative_path() / "src/Library/Preferences").string());
  EXPECT_TRUE(fs::is_directory(target / work.relative_path() / "src/Library/Preferences"));
  EXPECT_EQ(QVFileManager::createDirectoryStructure("/../../../etc/x", target.string()),
            (target / "etc").string());
}

TEST_F(QVFileManagerTest, DiskInfoDescribesOnlyARealMountPoint) {
  auto info = QVFileManager::infoForDiskAtMountpoint("/");
  ASSERT_TRUE(info);
  EXPECT_EQ(*info->find("MountPoint"), plist::Value("/"));
  EXPECT_GT(info->find("TotalSize")->asInteger().value_or(0), 0);
  EXPECT_FALSE(info->find("FilesystemType")->asString()->empty());
  EXPECT_TRUE(info->find("WritableVolume")->asBool());
  EXPECT_FALSE(QVFileManager::infoForDiskAtMountpoint(at("")));
}

} // namespace
} // namespace kestrin
