#include "foundation/PreferenceFile.h"

#include <thread>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

using testing::TempDir;

TEST(PreferenceFile, MissingFileReadsAsNullAndTheFirstWriteCreatesIt) {
  TempDir home;
  PreferenceFile prefs((home / "Library/Preferences/com.quorvane.Kestrin.plist").string());
  EXPECT_TRUE(prefs.object("customPort").isNull());
  EXPECT_TRUE(prefs.dictionary().empty());

  ASSERT_TRUE(prefs.setObject(4242, "customPort").ok());
  EXPECT_EQ(prefs.object("customPort"), plist::Value(4242));
  EXPECT_TRUE(std::filesystem::exists(prefs.path()));
}

TEST(PreferenceFile, ReadsAfreshSoAnotherWritersChangeIsSeen) {
  TempDir home;
  PreferenceFile prefs((home / "prefs.plist").string());
  ASSERT_TRUE(prefs.setObject("first", "key").ok());
  ASSERT_TRUE(plist::writeFile(prefs.path(), plist::Dictionary{{"key", "from the pane"}}).ok());
  EXPECT_EQ(prefs.object("key"), plist::Value("from the pane"));
}

TEST(PreferenceFile, NullValuesAndEmptyKeysChangeNothing) {
  TempDir home;
  PreferenceFile prefs((home / "prefs.plist").string());
  ASSERT_TRUE(prefs.setObject(plist::Value(), "key").ok());
  ASSERT_TRUE(prefs.setObject(1, "").ok());
  EXPECT_FALSE(std::filesystem::exists(prefs.path()));
}

TEST(PreferenceFile, UnreadableFileIsReplacedByTheNewPair) {
  TempDir home;
  PreferenceFile prefs((home / "prefs.plist").string());
  testing::writeText(prefs.path(), "<?xml version=\"1.0\"?><plist><dict><key>x</key>");
  EXPECT_TRUE(prefs.object("x").isNull());
  ASSERT_TRUE(prefs.setObject(true, "disableBonjour").ok());
  EXPECT_EQ(prefs.dictionary(), (plist::Dictionary{{"disableBonjour", true}}));
}

TEST(PreferenceFile, WritersOnTwoThreadsLoseNothing) {
  TempDir home;
  PreferenceFile prefs((home / "prefs.plist").string());
  constexpr int kWrites = 150;
  auto writer = [&](const std::string& prefix) {
    for (int i = 0; i < kWrites; ++i) {
      ASSERT_TRUE(prefs.setObject(i, prefix + std::to_string(i)).ok());
    }
  };
  std::thread a(writer, "a");
  std::thread b(writer, "b");
  a.join();
  b.join();
  plist::Dictionary dict = prefs.dictionary();
  EXPECT_EQ(dict.size(), 2u * kWrites);
  for (int i = 0; i < kWrites; ++i) {
    EXPECT_EQ(*dict.find("a" + std::to_string(i)), plist::Value(i));
    EXPECT_EQ(*dict.find("b" + std::to_string(i)), plist::Value(i));
  }
}

TEST(PreferenceFile, WritersInTwoObjectsOfTheSameFileLoseNothing) {
  TempDir home;
  std::string path = (home / "prefs.plist").string();
  PreferenceFile first(path);
  PreferenceFile second(path); // as another process would: only the lock file is shared
  std::thread a([&] {
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(first.setObject(i, "a" + std::to_string(i)).ok());
    }
  });
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(second.setObject(i, "b" + std::to_string(i)).ok());
  }
  a.join();
  EXPECT_EQ(first.dictionary().size(), 200u);
}

} // namespace
} // namespace kestrin
