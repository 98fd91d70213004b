#include "foundation/QVGroupItem.h"

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "foundation/PluginArchive.h"
#include "foundation/QVPluginItem.h"
#include "plist/PropertyList.h"

// The plug-in tree: paths of items, aggregates, orders and the archived form.

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using plist::Value;

class PluginTreeTest : public ::testing::Test {
protected:
  std::shared_ptr<QVPluginItem> plugin(const std::string& name, std::int32_t type = 0,
                                       std::int32_t access = 0,
                                       std::optional<std::int64_t> enabled = 1) {
    auto item = std::make_shared<QVPluginItem>(name, type, access, enabled, roots);
    item->setShortName(name);
    return item;
  }
  std::shared_ptr<QVGroupItem> group(const std::string& title, std::vector<QVTreeItem> children) {
    auto made = std::make_shared<QVGroupItem>();
    made->setTitle(title);
    for (QVTreeItem& child : children) {
      made->addChild(std::move(child));
    }
    return made;
  }
  static std::vector<std::string> names(const QVGroupItem& group) {
    std::vector<std::string> found;
    for (const QVTreeItem& child : group.children()) {
      if (auto* item = std::get_if<std::shared_ptr<QVPluginItem>>(&child)) {
        found.push_back((*item)->shortName().value_or("?"));
      } else {
        found.push_back("[" + std::get<std::shared_ptr<QVGroupItem>>(child)->title().value_or("?") +
                        "]");
      }
    }
    return found;
  }

  testing::TempDir dir;
  std::shared_ptr<const PluginRoots> roots = std::make_shared<const PluginRoots>(
      PluginRoots{"/", (dir.path() / "home").string() + "/", "/D"});
};

TEST_F(PluginTreeTest, AnItemsPathFollowsItsTypeAccessSubdirAndState) {
  std::string home = (dir.path() / "home").string();
  auto item = plugin("Blur.fxplug");
  EXPECT_EQ(item->pluginPath(), "/Library/Plug-Ins/FxPlug/Blur.fxplug");
  EXPECT_EQ(item->itemSelection(), 0);
  item->setSubdir("Acme");
  EXPECT_EQ(item->pluginPath(), "/Library/Plug-Ins/FxPlug/Acme/Blur.fxplug");
  item->setPluginEnabled(0);
  EXPECT_EQ(item->pluginPath(), "/D/Library/Plug-Ins/FxPlug/Acme/Blur.fxplug");
  item->setPluginEnabled(std::nullopt); // only 0 selects the disabled folder
  EXPECT_EQ(item->pluginTypeDir(), "");
  EXPECT_EQ(plugin("W", 1, 0)->pluginPath(),
            "/Library/Application Support/Final Cut Pro System Support/Plugins/W");
  EXPECT_EQ(plugin("W", 1, 1)->pluginPath(),
            home + "/Library/Preferences/Final Cut Pro User Data/Plugins/W");
  EXPECT_EQ(plugin("A", 2, 7)->pluginPath(), home + "/Library/Audio/Plug-Ins/Components/A");
  EXPECT_EQ(plugin("V", 9)->pluginTypeName(), "Unknown");
  EXPECT_EQ(plugin("V", 9)->pluginBasePath(), "");

  // actualPath follows the fields while nothing is where they point; once the plug-in is
  // really there, it stays where it was found.
  std::shared_ptr<const PluginRoots> real = std::make_shared<const PluginRoots>(
      PluginRoots{dir.path().string(), home + "/", dir.path().string() + "/D"});
  auto found = std::make_shared<QVPluginItem>("Real.fxplug", 0, 0, 1, real);
  std::string there = dir.path().string() + "/Library/Plug-Ins/FxPlug/Real.fxplug";
  fs::create_directories(there);
  EXPECT_EQ(found->actualPath(), there);
  found->setPluginEnabled(0);
  EXPECT_EQ(found->actualPath(), there);
  EXPECT_EQ(found->pluginPath(), dir.path().string() + "/D" + there);
}

TEST_F(PluginTreeTest, GroupsAggregateTheirChildren) {
  auto empty = group("Empty", {});
  EXPECT_EQ(empty->groupEnabled(), -1);
  EXPECT_EQ(empty->groupAccess(), -1);
  // One enabled plug-in beside an empty group: the empty group counts as mixed.
  EXPECT_EQ(group("G", {plugin("a"), empty})->groupEnabled(), -1);
  EXPECT_EQ(group("G", {plugin("a"), group("S", {plugin("b")})})->groupEnabled(), 1);
  EXPECT_EQ(group("G", {plugin("a", 0, 0, 0), plugin("b", 0, 0, 5)})->groupEnabled(), 0);
  EXPECT_EQ(group("G", {plugin("a"), plugin("b", 0, 0, 0)})->groupEnabled(), -1);
  EXPECT_EQ(group("G", {plugin("a", 0, 1), plugin("b", 0, 3)})->groupAccess(), 1);
  EXPECT_EQ(group("G", {plugin("a", 0, 0), group("S", {plugin("b", 0, 0)})})->groupAccess(), 0);
  EXPECT_EQ(group("G", {plugin("a", 0, 0), plugin("b", 0, 1)})->groupAccess(), -1);
  EXPECT_EQ(group("G", {plugin("a", 0, 0), empty})->groupAccess(), -1);

  auto inner = group("Inner", {plugin("x", 0, 0, 0), plugin("y", 0, 0, 0)});
  auto outer = group("Outer", {plugin("a"), plugin("b", 0, 0, 0), inner});
  EXPECT_EQ(outer->totalChildCount(), 4u);
  // Enabled plug-ins here, and every plug-in of a sub-group: the count the console shows.
  EXPECT_EQ(outer->totalEnabledChildCount(), 3u);
  std::vector<std::string> all;
  for (const auto& item : outer->allChildren()) {
    all.push_back(*item->shortName());
  }
  EXPECT_EQ(all, (std::vector<std::string>{"a", "b", "x", "y"}));
  outer->enableChildren(1);
  EXPECT_EQ(outer->groupEnabled(), 1);
  outer->setChildAccess(1);
  EXPECT_EQ(outer->groupAccess(), 1);
}

TEST_F(PluginTreeTest, GroupFoldersComeFromTheMostChildren) {
  auto a = plugin("a");
  auto b = plugin("b");
  auto c = plugin("c", 2);
  auto elsewhere = group("Sub", {});
  elsewhere->setGroupPath("/Library/Audio/Plug-Ins/Components");
  auto mixed = group("G", {a, c, elsewhere, b, plugin("d")});
  EXPECT_EQ(mixed->groupPath(), "/Library/Plug-Ins/FxPlug");
  // A tie goes to the first folder in path order.
  EXPECT_EQ(group("T", {c, a})->groupPath(), "/Library/Audio/Plug-Ins/Components");
  EXPECT_EQ(elsewhere->groupPath(), "/Library/Audio/Plug-Ins/Components"); // no children

  auto acme = group("Acme", {});
  acme->setGroupPath("/Library/Plug-Ins/FxPlug/Acme/Tools");
  acme->setSubdir("Acme/Tools");
  EXPECT_EQ(acme->basePath(), "/Library/Plug-Ins/FxPlug");
  acme->setSubdir("a/b/c/d/e/f/g/h");
  EXPECT_EQ(acme->basePath(), "/Library/Plug-Ins/FxPlug/Acme/Tools");

  // Renaming gives plug-ins the sub-folder and groups the sub-folder plus their title.
  auto tools = group("Tools", {plugin("t")});
  auto vendor = group("Vendor", {plugin("v"), tools});
  vendor->renameChildSubdirs(std::string("Vendor"));
  EXPECT_EQ(vendor->allChildren()[0]->subdir(), "Vendor");
  EXPECT_EQ(vendor->allChildren()[1]->subdir(), "Vendor/Tools");
  EXPECT_EQ(vendor->allChildren()[1]->pluginPath(), "/Library/Plug-Ins/FxPlug/Vendor/Tools/t");
}

TEST_F(PluginTreeTest, SortsOrderChildrenThenEachGroupBelow) {
  auto versioned = [&](const std::string& name, const std::string& version,
                       std::optional<std::int64_t> enabled = 1) {
    auto item = plugin(name, 2, 0, enabled);
    item->setVersion(version);
    return item;
  };
  auto sub = group("sub", {versioned("z", "1"), versioned("Y", "2")});
  auto top = group("Top", {versioned("b", "1.2", 0), sub, versioned("A", "1.10"), group("Beta", {}),
                           versioned("c", "1.2", std::nullopt)});
  top->sortChildrenByName(false);
  EXPECT_EQ(names(*top), (std::vector<std::string>{"A", "b", "[Beta]", "c", "[sub]"}));
  EXPECT_EQ(names(*sub), (std::vector<std::string>{"Y", "z"}));
  top->sortChildrenByName(true);
  EXPECT_EQ(names(*top), (std::vector<std::string>{"[sub]", "c", "[Beta]", "b", "A"}));
  EXPECT_EQ(names(*sub), (std::vector<std::string>{"z", "Y"}));
  // Versions compare as text; in reverse the groups come first.
  top->sortChildrenByVersion(true);
  EXPECT_EQ(names(*top), (std::vector<std::string>{"[Beta]", "[sub]", "b", "c", "A"}));
  top->sortChildrenByStatus(false);
  EXPECT_EQ(names(*top), (std::vector<std::string>{"c", "b", "A", "[Beta]", "[sub]"}));
  top->sortChildrenByType(false);
  EXPECT_EQ(names(*top).front(), "c"); // "Audio Unit" before "Group"
  EXPECT_EQ(names(*top).back(), "[sub]");
  auto reversed = QVGroupItem::reverseArray(top->children());
  ASSERT_TRUE(reversed);
  EXPECT_EQ(reversed->size(), 5u);
}

TEST_F(PluginTreeTest, TheArchiveRoundTripsThroughAPropertyList) {
  auto withNils = std::make_shared<QVPluginItem>(roots);
  withNils->setPluginType(-1);
  withNils->setPluginAccess(2147483647);
  auto item = plugin("Blur.fxplug", 1, 1, 0);
  item->setVersion("2.0 é");
  item->setSubdir("Acme");
  item->setItemSelection(-1);
  auto inner = group("Acme", {item});
  inner->setSubdir("Acme");
  inner->setGroupPath("/Library/Plug-Ins/FxPlug/Acme");
  auto root = group("Plug-ins", {inner, withNils, group("Empty", {})});

  Value archived = PluginArchive::archive(*root);
  // Through the XML form: everything in it is a property-list value.
  auto xml = plist::toXml(archived);
  ASSERT_TRUE(xml.ok()) << xml.message();
  auto reread = plist::parse(*xml);
  ASSERT_TRUE(reread.ok());
  const plist::Array& innerGroup =
      *reread->get("root")->asArray()->at(2).asArray()->at(0).asArray();
  const Value* fields = innerGroup.at(2).asArray()->at(0).asArray()->data();
  EXPECT_EQ(fields[0], Value("QVPluginItem"));
  EXPECT_EQ(fields[7], Value(1)); // pluginType, an integer
  EXPECT_EQ(fields[8], Value(1)); // pluginAccess

  auto back = PluginArchive::unarchive(*reread, roots);
  ASSERT_TRUE(back.ok()) << back.message();
  EXPECT_EQ(**back, *root);
  auto plugins = (*back)->allChildren();
  ASSERT_EQ(plugins.size(), 2u);
  EXPECT_EQ(plugins[0]->pluginPath(), item->pluginPath());
  EXPECT_EQ(plugins[1]->shortName(), std::nullopt);
  EXPECT_EQ(plugins[1]->pluginAccess(), 2147483647);
  EXPECT_NE(plugins[0]->parent(), nullptr);
  EXPECT_EQ(plugins[0]->parent()->title(), "Acme");
}

TEST_F(PluginTreeTest, MalformedOrForeignArchivesAreRefusedWithAReason) {
  Value good = PluginArchive::archive(*group("R", {plugin("a")}));
  auto refusal = [&](const Value& archive) {
    auto result = PluginArchive::unarchive(archive, roots);
    return result.ok() ? std::string("(accepted)") : result.message();
  };
  auto edited = [&](auto change) {
    plist::Dictionary copy = *good.asDictionary();
    change(copy);
    return Value(copy);
  };
  auto item = [&](plist::Array fields) {
    return edited([&](plist::Dictionary& d) {
      d.set("root", plist::Array{"QVGroupItem", "R", plist::Array{Value(fields)},
                                 plist::Dictionary{}, plist::Dictionary{}});
    });
  };
  plist::Array fine = *good.get("root")->asArray()->at(2).asArray()->at(0).asArray();

  EXPECT_EQ(refusal(good), "(accepted)");
  EXPECT_EQ(refusal(Value("QVPluginTree")), "Not a plug-in tree archive");
  EXPECT_EQ(refusal(edited([](plist::Dictionary& d) { d.set("version", 2); })),
            "Plug-in tree archive of version 2; this program reads version 1");
  EXPECT_NE(refusal(edited([](plist::Dictionary& d) { d.erase("version"); })).find("version"),
            std::string::npos);
  EXPECT_EQ(refusal(edited([](plist::Dictionary& d) { d.erase("root"); })),
            "Malformed plug-in tree archive: no root group");
  EXPECT_EQ(
      refusal(edited([](plist::Dictionary& d) { d.set("root", plist::Array{"QVPluginItem"}); })),
      "Malformed plug-in tree archive: expected a QVGroupItem");
  plist::Array shortItem(fine.begin(), fine.end() - 1);
  EXPECT_EQ(refusal(item(shortItem)),
            "Malformed plug-in tree archive: a QVPluginItem has 7 fields, not 8");
  plist::Array wrongKind = fine;
  wrongKind[7] = "0";
  EXPECT_EQ(refusal(item(wrongKind)),
            "Malformed plug-in tree archive: pluginType is not a 32-bit integer");
  wrongKind = fine;
  wrongKind[8] = std::int64_t{1} << 40;
  EXPECT_EQ(refusal(item(wrongKind)),
            "Malformed plug-in tree archive: pluginAccess is not a 32-bit integer");
  wrongKind = fine;
  wrongKind[1] = 3.5;
  EXPECT_EQ(refusal(item(wrongKind)),
            "Malformed plug-in tree archive: shortName is a real value, not a string");
  wrongKind = fine;
  wrongKind[5] = "1";
  EXPECT_EQ(refusal(item(wrongKind)),
            "Malformed plug-in tree archive: pluginEnabled is a string value, not an integer");
  EXPECT_EQ(refusal(item(plist::Array{"QVSomethingElse"})),
            "Malformed plug-in tree archive: expected a QVPluginItem");

  Value deep =
      plist::Array{"QVGroupItem", "leaf", plist::Array{}, plist::Dictionary{}, plist::Dictionary{}};
  for (int level = 0; level < 30; ++level) {
    deep = plist::Array{"QVGroupItem", "g", plist::Array{deep}, plist::Dictionary{},
                        plist::Dictionary{}};
  }
  EXPECT_EQ(refusal(edited([&](plist::Dictionary& d) { d.set("root", deep); })),
            "Malformed plug-in tree archive: groups nested deeper than 24");
}

} // namespace
} // namespace kestrin
