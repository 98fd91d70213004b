#include "admin/SavedLogs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "admin/JsonValue.h"
#include "admin/PrintingDelegate.h"
#include "fixtures/TempDir.h"

// What ambrant does with an agent's answers: the paths and selectors come from the agent, so
// they are hostile input here.

namespace kestrin::admin {
namespace {

namespace fs = std::filesystem;
using plist::Value;
using ::testing::ElementsAre;
using testing::readText;

TEST(SavedLogsTest, EveryPathBecomesOneFileNameInsideTheFolder) {
  EXPECT_EQ(savedLogName("/home/ed/Library/Logs/Quorvane/Kestrin.1.log"),
            "home_ed_Library_Logs_Quorvane_Kestrin.1.log");
  EXPECT_EQ(savedLogName("../../etc/passwd"), "_._.._etc_passwd");
  EXPECT_EQ(savedLogName(".."), "_.");
  EXPECT_EQ(savedLogName(""), "_");
  EXPECT_EQ(savedLogName("/"), "_");
  EXPECT_EQ(savedLogName("/a/Kestrin_new\nline:colon\xff.crash"),
            "a_Kestrin_new_line:colon_.crash");
  std::string deep = "/" + std::string(300, 'd') + "/Kestrin.1.log";
  EXPECT_EQ(savedLogName(deep).size(), kMaxNameLength);
  EXPECT_TRUE(savedLogName(deep).ends_with("_Kestrin.1.log"));
  // Cut at a character's start, never inside one.
  std::string wide = "/" + std::string(99, 'x') + std::string(60, '\0') + "\xc3\xa9";
  for (std::size_t i = 0; i < 100; ++i) {
    wide += "\xc3\xa9";
  }
  std::string cut = savedLogName(wide);
  EXPECT_LE(cut.size(), kMaxNameLength);
  EXPECT_EQ(static_cast<unsigned char>(cut[0]), 0xc3);
}

TEST(SavedLogsTest, AHostileAnswerNeverWritesOutsideTheFolderNorThroughALink) {
  testing::TempDir dir;
  fs::path folder = dir.path() / "saved";
  fs::create_directories(folder);
  testing::writeText(dir.path() / "victim", "untouched");
  fs::create_symlink(dir.path() / "victim", folder / "etc_passwd");

  plist::Dictionary answer{{"/etc/passwd", plist::Data{'x'}},
                           {"../victim", plist::Data{'y'}},
                           {"a/b", plist::Data{'1'}},
                           {"a_b", plist::Data{'2'}},
                           {"not data", Value("text")}};
  std::vector<std::string> saved;
  std::vector<std::string> skipped;
  auto report = saveLogs(
      folder.string(), answer,
      [&](const std::string& path, const std::string& file, std::size_t bytes) {
        saved.push_back(path + " -> " + fs::path(file).filename().string() + " " +
                        std::to_string(bytes));
      },
      [&](const std::string& path, const std::string&) { skipped.push_back(path); });
  ASSERT_TRUE(report.ok()) << report.message();
  EXPECT_THAT(saved, ElementsAre("../victim -> _._victim 1", "a/b -> a_b 1", "a_b -> a_b 2 1"));
  EXPECT_THAT(skipped, ElementsAre("/etc/passwd", "not data"));
  EXPECT_EQ(readText(dir.path() / "victim"), "untouched");
  EXPECT_EQ(readText(folder / "a_b 2"), "2");
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) {
    ++entries;
  }
  EXPECT_EQ(entries, 4u); // the three saved and the link that was there
}

TEST(SavedLogsTest, ADelegateArgumentBecomesALocalObjectThatPrintsEachCallOnOneLine) {
  std::ostringstream out;
  std::shared_ptr<PrintingDelegate> made;
  auto value = valueFromJson(R"([1, {"$delegate": {}}])", [&]() -> plist::ObjectRef {
    made = std::make_shared<PrintingDelegate>(out);
    return made;
  });
  ASSERT_TRUE(value.ok());
  plist::ObjectRef object = value->asArray()->at(1).asObject();
  ASSERT_EQ(object, made);
  EXPECT_TRUE(object->respondsTo("anything:at:all:"));
  object->invoke("tovellAddLogs:hostName:",
                 {plist::Array{plist::Dictionary{{"cause", "a\nb"}}}, Value("studio.local.")});
  object->invoke("bad\nselector", {});
  EXPECT_EQ(out.str(),
            "delegate tovellAddLogs:hostName: [[{\"cause\":\"a\\nb\"}],\"studio.local.\"]\n"
            "delegate bad?selector []\n");
  EXPECT_FALSE(valueFromJson(R"({"$delegate": {}})").ok());
  EXPECT_EQ(*valueFromJson(R"({"$delegate": 1})"), Value(plist::Dictionary{{"$delegate", 1}}));
}

} // namespace
} // namespace kestrin::admin
