#include "foundation/PluginInventory.h"

#include <fstream>
#include <map>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "fixtures/ThrowawayMachine.h"
#include "foundation/FinderInfo.h"
#include "foundation/QVLog.h"
#include "foundation/QVSysInfo.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using plist::Value;
using testing::writeText;

std::string text(const Value& record, const char* key) {
  const Value* value = record.get(key);
  return value && value->asString() ? *value->asString() : "(none)";
}

std::vector<std::string> paths(const plist::Array& records) {
  std::vector<std::string> found;
  for (const Value& record : records) {
    found.push_back(text(record, "fullPath"));
  }
  return found;
}

class PluginInventoryTest : public ::testing::Test {
protected:
  // A bundle "<folder>/<name>" with Contents/Info.plist holding info.
  fs::path bundle(const fs::path& folder, const std::string& name, plist::Dictionary info) {
    fs::path path = folder / name;
    fs::create_directories(path / "Contents");
    EXPECT_TRUE(plist::writeFile(path / "Contents/Info.plist", Value(std::move(info))).ok());
    return path;
  }
  fs::path file(const fs::path& folder, const std::string& name) {
    writeText(folder / name, "plug-in");
    return folder / name;
  }
  fs::path computer(const std::string& relative) const {
    return machine.root() / "Library" / relative;
  }
  fs::path user(const std::string& relative) const { return machine.home() / "Library" / relative; }
  fs::path disabled(const fs::path& enabled) const {
    return fs::path(inventory.folders().disabledFolder() + enabled.string());
  }

  testing::ThrowawayMachine machine;
  platform::Workspace workspace{{}, std::nullopt};
  PluginInventory inventory{machine.paths(), workspace};
};

TEST_F(PluginInventoryTest, RowsComeInTableOrderEachFollowedByItsDisabledCopy) {
  fs::path fxplug = computer("Plug-Ins/FxPlug");
  file(fxplug, "Blur.fxplug");
  file(disabled(fxplug), "Old.fxplug");
  file(user("Plug-Ins/FxPlug"), "Mine.fxplug");
  file(user("Preferences/Final Cut Pro User Data/Plugins"), "Wipe.fcfcc");
  file(computer("Audio/Plug-Ins/VST"), "Reverb.vst");
  file(machine.home() / "Movies/Motion Templates.localized", "Title.txt");
  file(computer("Application Support/Final Cut Pro/Templates.localized"), "Lower.txt");

  plist::Array all = inventory.plugins(true);
  EXPECT_EQ(paths(all),
            (std::vector<std::string>{
                (fxplug / "Blur.fxplug").string(),
                (disabled(fxplug) / "Old.fxplug").string(),
                user("Plug-Ins/FxPlug/Mine.fxplug").string(),
                user("Preferences/Final Cut Pro User Data/Plugins/Wipe.fcfcc").string(),
                computer("Audio/Plug-Ins/VST/Reverb.vst").string(),
                computer("Application Support/Final Cut Pro/Templates.localized/"
                         "Lower.txt")
                    .string(),
                (machine.home() / "Movies/Motion Templates.localized/Title.txt").string(),
            }));
  // The disabled copy keeps the access type of the path it came from.
  const Value& old = all[1];
  EXPECT_EQ(*old.get("disabled"), Value(true));
  EXPECT_EQ(*old.get("accessType"), Value(0));
  EXPECT_EQ(*old.get("type"), Value("FxPlug"));
  EXPECT_EQ(*all[0].get("disabled"), Value(false));
  EXPECT_EQ(*all[2].get("accessType"), Value(1));
  EXPECT_EQ(text(all[3], "type"), "FxScript");
  EXPECT_EQ(text(all[5], "type"), "Motion Template"); // Final Cut's templates, as always
  EXPECT_EQ(inventory.plugins(false).size(), all.size() - 1);

  // The profile carries the enabled ones.
  QVSysInfo info(machine.paths(), platform::SystemFacts{});
  ::testing::internal::CaptureStderr();
  plist::Dictionary profile = info.systemProfile();
  ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(profile.find("Plugins") && profile.find("Plugins")->asArray());
  EXPECT_EQ(paths(*profile.find("Plugins")->asArray()), paths(inventory.plugins(false)));
}

TEST_F(PluginInventoryTest, RecordsDescribeBundlesFilesAndTypeCodes) {
  fs::path folder = computer("Plug-Ins/FxPlug");
  bundle(folder, "Glow.fxplug",
         {{"CFBundleName", "Glow Pro"},
          {"CFBundleShortVersionString", "2.1"},
          {"CFBundleVersion", "210"}});
  bundle(folder / "Acme", "Sharpen.plugin", {{"CFBundleVersion", "3"}});
  // A folder without an extension is searched; with one it is a plug-in (or nothing).
  fs::create_directories(folder / "Foo.fxplug");
  fs::create_directories(folder / "Empty");
  file(folder, "notes.pdf");
  fs::path script = file(folder, "Effect");
  fs::path other = file(folder, "Other");
  FinderInfo code;
  code.setFileType(PluginInventory::kEffectScriptType);
  ASSERT_TRUE(code.write(script.string()).ok());
  code.setFileType(0x54455854); // 'TEXT'
  ASSERT_TRUE(code.write(other.string()).ok());

  plist::Array records = inventory.pluginsAtPath(folder.string(), std::nullopt);
  ASSERT_EQ(paths(records), (std::vector<std::string>{(folder / "Acme/Sharpen.plugin").string(),
                                                      (folder / "Effect").string(),
                                                      (folder / "Foo.fxplug").string(),
                                                      (folder / "Glow.fxplug").string()}));
  const Value& sharpen = records[0];
  EXPECT_EQ(text(sharpen, "name"), "Sharpen");
  EXPECT_EQ(text(sharpen, "version"), "3");
  EXPECT_EQ(*sharpen.get("package"), Value(true));
  EXPECT_EQ(sharpen.get("type"), nullptr);
  EXPECT_EQ(text(records[1], "name"), "Effect");
  EXPECT_EQ(records[1].get("version"), nullptr);
  EXPECT_EQ(*records[2].get("package"), Value(false));
  EXPECT_EQ(text(records[2], "name"), "Foo");
  const Value& glow = records[3];
  EXPECT_EQ(glow.asDictionary()->keys(),
            (std::vector<std::string>{"fullPath", "name", "version", "moddate", "disabled",
                                      "accessType", "package"}));
  EXPECT_EQ(text(glow, "name"), "Glow Pro");
  EXPECT_EQ(text(glow, "version"), "2.1");
  EXPECT_TRUE(glow.get("moddate")->asDate());
}

TEST_F(PluginInventoryTest, MediaCoreFollowsTheLastPremiereVersion) {
  auto mediaCore = [&](const std::vector<std::string>& versions) {
    return inventory.folders().table(versions)[10].folder;
  };
  std::string support = (machine.root() / "Library/Application Support").string();
  EXPECT_EQ(mediaCore({}), support + "/Adobe/Common/Plug-ins/CS6/MediaCore");
  EXPECT_EQ(mediaCore({"4.0", "5.0"}), support + "/Adobe/Common/Plug-ins/CS5/MediaCore");
  EXPECT_EQ(mediaCore({"5.5"}), support + "/Adobe/Common/Plug-ins/CS5.5/MediaCore");
  EXPECT_EQ(mediaCore({"10.0"}), support + "/Adobe/Common/Plug-ins/CS1/MediaCore");
  EXPECT_EQ(mediaCore({"../../../../etc"}), support + "/Adobe/Common/Plug-ins/CS6/MediaCore");

  fs::path premiere =
      machine.root() / "Applications/Adobe Premiere Pro CS5/Adobe Premiere Pro CS5.app";
  fs::create_directories(premiere / "Contents");
  ASSERT_TRUE(plist::writeFile(premiere / "Contents/Info.plist",
                               Value(plist::Dictionary{{"CFBundleVersion", "5.0"}}))
                  .ok());
  file(support + "/Adobe/Common/Plug-ins/CS5/MediaCore", "Grade.bundle");
  plist::Array records = inventory.plugins(false);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(text(records[0], "type"), "Adobe Plugin");
}

TEST_F(PluginInventoryTest, HostileFoldersAndBundlesNeverBreakTheScan) {
  fs::path folder = user("Plug-Ins/FxPlug");
  // Link loops and links to folders elsewhere are never entered.
  fs::create_directories(folder / "Loop");
  fs::create_symlink(folder, folder / "Loop/Again");
  fs::create_symlink("Self", folder / "Self");
  fs::create_symlink(machine.root(), folder / "Root");
  file(machine.root() / "Library/Plug-Ins/FxPlug", "Elsewhere.fxplug");
  // A 30-level-deep folder: what lies within the depth limit is found, the rest left unread.
  fs::path deep = folder;
  for (int level = 1; level <= 30; ++level) {
    deep /= "level" + std::to_string(level);
    if (level == 10) {
      file(deep, "Ten.fxplug");
    }
  }
  file(deep, "Thirty.fxplug");
  // Bundle information that is malformed, binary, 20 MB, or a pipe.
  fs::create_directories(folder / "Broken.fxplug/Contents");
  writeText(folder / "Broken.fxplug/Contents/Info.plist", "<plist><dict><key>CFBundleName");
  bundle(folder, "Binary.fxplug", {});
  ASSERT_TRUE(plist::writeFile(
                  folder / "Binary.fxplug/Contents/Info.plist",
                  Value(plist::Dictionary{{"CFBundleName", "Binary Name"}, {"CFBundleVersion", 7}}),
                  plist::Format::Binary)
                  .ok());
  fs::create_directories(folder / "Huge.fxplug/Contents");
  {
    std::ofstream huge(folder / "Huge.fxplug/Contents/Info.plist");
    huge << "<?xml version=\"1.0\"?><plist><dict><key>CFBundleName</key><string>";
    huge << std::string(20u << 20, 'x') << "</string></dict></plist>";
  }
  fs::create_directories(folder / "Pipe.fxplug/Contents");
  ASSERT_EQ(::mkfifo((folder / "Pipe.fxplug/Contents/Info.plist").c_str(), 0600), 0);

  plist::Array records = inventory.pluginsAtPath(folder.string(), "FxPlug");
  std::map<std::string, const Value*> byName;
  for (const Value& record : records) {
    byName[fs::path(text(record, "fullPath")).filename().string()] = &record;
  }
  EXPECT_TRUE(byName.count("Ten.fxplug"));
  EXPECT_FALSE(byName.count("Thirty.fxplug"));
  EXPECT_FALSE(byName.count("Elsewhere.fxplug"));
  ASSERT_EQ(records.size(), 5u) << plist::describe(Value(records));
  EXPECT_EQ(text(*byName["Broken.fxplug"], "name"), "Broken");
  EXPECT_EQ(*byName["Broken.fxplug"]->get("package"), Value(true));
  EXPECT_EQ(text(*byName["Binary.fxplug"], "name"), "Binary Name");
  EXPECT_EQ(byName["Binary.fxplug"]->get("version"), nullptr); // not a string
  EXPECT_EQ(text(*byName["Huge.fxplug"], "name"), "Huge");
  EXPECT_EQ(text(*byName["Pipe.fxplug"], "name"), "Pipe");
  QVLog::finishWriting();
  EXPECT_NE(machine.logText().find("holds folders nested too deeply"), std::string::npos);

  // An unreadable or missing folder gives nothing.
  EXPECT_TRUE(inventory.pluginsAtPath((folder / "missing").string(), "FxPlug").empty());
}

} // namespace
} // namespace kestrin
