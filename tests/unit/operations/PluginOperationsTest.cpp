#include "operations/PluginOperations.h"

#include "PluginOperationsFixture.h"

namespace kestrin::operations::plugin_test {
namespace {

TEST_F(PluginOperationsTest, APluginIsListedFetchedAndInstalledWhole) {
  fs::path glow = bundle(computerFx(), "Glow", "2.0");
  Value list = call("vantryPluginList", {});
  ASSERT_EQ(list.asArray()->size(), 1u);
  Value record = list.asArray()->front();
  EXPECT_EQ(*record.get("fullPath"), Value(glow.string()));
  EXPECT_EQ(*record.get("package"), Value(true));

  Value data = call("vantryPluginData:", {record});
  ASSERT_TRUE(data.asData()) << log();
  EXPECT_FALSE(fs::exists(glow.string() + ".zip"));
  EXPECT_TRUE(logged("Getting plugin data from plugin " + glow.string() + "..."));
  EXPECT_TRUE(logged("Compressing file..."));
  EXPECT_TRUE(logged("Loading data..."));

  plist::Dictionary install = *record.asDictionary();
  install.set("filename", "Glow.fxplug");
  call("vantryInstallPlugin:withData:", {install, data});
  fs::path installed = userFx() / "Glow.fxplug";
  EXPECT_EQ(readText(installed / "Contents/MacOS/Glow"), "binary of Glow 2.0");
  EXPECT_FALSE(fs::exists(installed.string() + ".zip"));
  EXPECT_TRUE(logged("Creating folder " + userFx().string()));
  EXPECT_TRUE(logged("Writing data to compressed file " + installed.string() + ".zip..."));
  EXPECT_TRUE(logged("Decompressing to " + installed.string() + "..."));

  // The tree groups by type and folder and reads back whole.
  auto tree = PluginArchive::unarchive(call("vantryPluginTree", {}));
  ASSERT_TRUE(tree.ok()) << tree.message();
  ASSERT_EQ((*tree)->children().size(), 1u);
  const auto& type = std::get<std::shared_ptr<QVGroupItem>>((*tree)->children()[0]);
  EXPECT_EQ(type->title(), "FxPlug");
  ASSERT_EQ(type->children().size(), 2u);
  const auto& computer = std::get<std::shared_ptr<QVGroupItem>>(type->children()[0]);
  EXPECT_EQ(computer->title(), computerFx().string());
  auto plugins = type->allChildren();
  ASSERT_EQ(plugins.size(), 2u);
  EXPECT_EQ(plugins[0]->shortName(), "Glow");
  EXPECT_EQ(plugins[0]->version(), "2.0");
  EXPECT_EQ(plugins[1]->pluginAccess(), 1);
}

TEST_F(PluginOperationsTest, InstallingNeverWritesOutsideTheTypesFolder) {
  plist::Data glow = archiveOf("Glow", "1.0");
  auto install = [&](const Value& record, const Value& data) {
    call("vantryInstallPlugin:withData:", {record, data});
  };
  install(installRecord("FxPlug", "../../Glow.fxplug"), glow);
  EXPECT_TRUE(fs::exists(userFx() / "Glow.fxplug/Contents/Info.plist"));
  EXPECT_FALSE(fs::exists(home() / "Library/Glow.fxplug"));
  install(installRecord("FxScript", "/etc/Glow.fxplug"), glow);
  EXPECT_TRUE(
      fs::exists(home() / "Library/Preferences/Final Cut Pro User Data/Plugins/Glow.fxplug"));

  // An unknown type, or a type that is not a name, is installed as an Audio Unit.
  install(installRecord("VST", "Glow.fxplug"), glow);
  EXPECT_TRUE(logged("Unknown plugin type VST"));
  EXPECT_TRUE(fs::exists(userAudioUnits() / "Glow.fxplug"));
  fs::remove_all(userAudioUnits());
  install(installRecord(Value(7), "Glow.fxplug"), glow);
  EXPECT_TRUE(logged("Unknown plugin type 7"));
  EXPECT_TRUE(fs::exists(userAudioUnits() / "Glow.fxplug"));

  for (const Value& filename : {Value(), Value(42), Value(""), Value(".."), Value("/"),
                                Value("a/.."), Value(plist::Array{"x"})}) {
    std::size_t mark = log().size();
    install(installRecord("FxPlug", filename), glow);
    EXPECT_TRUE(logged("Unable to determine destination filename", mark))
        << plist::describe(filename);
  }
  std::size_t mark = log().size();
  install(installRecord("FxPlug", "Glow.fxplug"), Value());
  EXPECT_TRUE(logged("Error: no plugin data found", mark));
  mark = log().size();
  install(installRecord("FxPlug", "Glow.fxplug"), plist::Data{});
  EXPECT_TRUE(logged("Error: no plugin data found", mark));
  install(Value(), glow);
  EXPECT_TRUE(logged("Installing plugin (null)"));

  // Bytes that are not a zip, and a zip reaching outside: nothing lands, nothing is left.
  const std::string text = "not a zip at all";
  install(installRecord("FxPlug", "Junk.fxplug"), plist::Data(text.begin(), text.end()));
  EXPECT_TRUE(logged("Unable to decompress plugin"));
  EXPECT_FALSE(fs::exists(userFx() / "Junk.fxplug.zip"));
  install(installRecord("FxPlug", "Evil.fxplug"),
          storedZip({{"Evil.fxplug/", ""},
                     {"Evil.fxplug/x", "x"},
                     {"../../Evil.txt", "outside"},
                     {"/tmp/kestrin-evil.txt", "outside"}}));
  EXPECT_FALSE(fs::exists(home() / "Library/Plug-Ins/Evil.txt"));
  EXPECT_FALSE(fs::exists(home() / "Library/Evil.txt"));
  EXPECT_FALSE(fs::exists("/tmp/kestrin-evil.txt"));
  EXPECT_FALSE(fs::exists(userFx() / "Evil.fxplug.zip"));

  // A record of the wrong kind is the caller's error, named as such.
  EXPECT_THROW(install(Value("Glow.fxplug"), glow), ArgumentError);
  EXPECT_THROW(install(installRecord("FxPlug", "Glow.fxplug"), Value("bytes")), ArgumentError);
}

TEST_F(PluginOperationsTest, OnlyPluginsInPluginFoldersAreFetched) {
  writeText(home() / "secret.txt", "secret");
  fs::create_directories(computerFx());
  fs::create_symlink(home(), computerFx() / "Home");
  bundle(computerFx(), "Glow", "1.0");
  auto fetch = [&](const Value& record) { return call("vantryPluginData:", {record}); };
  auto at = [](const Value& path) { return Value(plist::Dictionary{{"fullPath", path}}); };

  EXPECT_TRUE(fetch(Value()).isNull());
  EXPECT_TRUE(fetch(plist::Dictionary{}).isNull());
  EXPECT_TRUE(fetch(at(Value(42))).isNull());
  EXPECT_TRUE(logged("Unable to determine plugin path"));
  EXPECT_TRUE(fetch(at((home() / "secret.txt").string())).isNull());
  EXPECT_TRUE(fetch(at((computerFx() / "Home/secret.txt").string())).isNull());
  EXPECT_TRUE(fetch(at((computerFx() / "../../../home/secret.txt").string())).isNull());
  EXPECT_TRUE(fetch(at(computerFx().string())).isNull());
  EXPECT_TRUE(
      logged("Refusing " + (home() / "secret.txt").string() + ": not inside a plug-in folder"));
  EXPECT_TRUE(fetch(at((computerFx() / "Missing.fxplug").string())).isNull());
  EXPECT_TRUE(logged("Unable to locate file " + (computerFx() / "Missing.fxplug").string()));
  // A huge path is turned away without a huge log line, which would rotate the log.
  std::size_t before = log().size();
  EXPECT_TRUE(fetch(at(computerFx().string() + "/" + std::string(1 << 20, 'a'))).isNull());
  EXPECT_EQ(log().find("Log truncated"), std::string::npos);
  EXPECT_LT(log().size(), before + 3 * PATH_MAX);
  // The disabled copy of a plug-in folder is one too.
  fs::path disabled = disabledFolder() + computerFx().string();
  bundle(disabled, "Off", "1.0");
  EXPECT_TRUE(fetch(at((disabled / "Off.fxplug").string())).asData());
}

TEST_F(PluginOperationsTest, SubFoldersAndDomainsOfPluginPaths) {
  auto subdir = [&](const std::string& path) { return call("subdirForPluginPath:", {path}); };
  std::string fx = computerFx().string();
  EXPECT_EQ(subdir(fx + "/Acme/Blur.fxplug"), Value("Acme"));
  EXPECT_TRUE(subdir(fx + "/Blur.fxplug").isNull());
  EXPECT_EQ(subdir(disabledFolder() + fx + "/Acme/Blur.fxplug"), Value("Acme"));
  EXPECT_TRUE(subdir(disabledFolder() + fx + "/Blur.fxplug").isNull());
  EXPECT_EQ(subdir("/" + fx + "/Acme/Tools/Blur.fxplug"), Value("Acme/Tools"));
  EXPECT_EQ(subdir(userAudioUnits().string() + "/Vendor/Verb.component"), Value("Vendor"));
  EXPECT_TRUE(subdir("/elsewhere/Acme/Blur.fxplug").isNull());
  EXPECT_TRUE(subdir(fx + "X/Acme/Blur.fxplug").isNull());
  EXPECT_TRUE(call("subdirForPluginPath:", {Value()}).isNull());

  EXPECT_EQ(call("accessModeForPluginPath:", {(userFx() / "x").string()}), Value(1));
  EXPECT_EQ(call("accessModeForPluginPath:", {fx + "/x"}), Value(0));
}

TEST_F(PluginOperationsTest, VantryGetsTheDocumentedSwitches) {
  std::string plugin = (userFx() / "Glow.fxplug").string();
  auto settings = [](const Value& path, const Value& number) {
    plist::Dictionary dictionary;
    if (!path.isNull()) {
      dictionary.set("obj1", path);
    }
    if (!number.isNull()) {
      dictionary.set("obj2", number);
    }
    return Value(dictionary);
  };
  call("vantryEnablePlugin:settings:", {Value(), settings(plugin, 2)});
  call("vantryEnablePlugin:settings:",
       {Value(), settings("~/Library/Plug-Ins/FxPlug/Glow.fxplug", 1)});
  call("vantryEnablePlugin:settings:", {Value(), settings(plugin, 0)});
  call("vantryEnablePlugin:settings:", {Value(), settings(Value(), Value())});
  call("vantryChangeAccess:settings:", {Value(), settings(plugin, 1)});
  call("vantryChangeAccess:settings:", {Value(), settings(plugin, false)});
  EXPECT_EQ(vantryCalls(), "-enable " + plugin + "\n-disable " + plugin + "\n-enable " + plugin +
                               "\n-enable\n-setaccess 1 " + plugin + "\n-setaccess 0 " + plugin +
                               "\n");
  // 2 is logged as disabling, but only 1 disables.
  EXPECT_TRUE(logged("Disabling Vantry plugin " + plugin + "..."));
  EXPECT_TRUE(logged("Enabling Vantry plugin " + plugin + "..."));
  EXPECT_TRUE(logged("Enabling Vantry plugin (null)..."));
  EXPECT_TRUE(logged("Changing access type of Vantry plugin " + plugin + " to Current User..."));
  EXPECT_TRUE(logged("Changing access type of Vantry plugin " + plugin + " to All Users..."));
  EXPECT_TRUE(logged("Found application at path " +
                     (root() / "Applications/Quorvane/Vantry.app").string() +
                     " for bundle ID com.quorvane.Vantry"));
  EXPECT_TRUE(logged("Launching task..."));

  // Paths outside the plug-in folders, and refused credentials, never reach the tool.
  call("vantryEnablePlugin:settings:", {Value(), settings("/etc/passwd", 1)});
  call("vantryChangeAccess:settings:", {Value(), settings("-rf", 1)});
  plist::Dictionary credentials{{"authUser", "nobody-here"},
                                {"authPass", QVEncryption::encryptPassword("wrong")}};
  call("vantryEnablePlugin:settings:", {credentials, settings(plugin, 1)});
  EXPECT_TRUE(gotError(1006));
  std::string calls = vantryCalls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 6);

  fs::remove_all(root() / "Applications/Quorvane/Vantry.app");
  call("vantryEnablePlugin:settings:", {Value(), settings(plugin, 1)});
  EXPECT_TRUE(logged("Cannot find the location of the Vantry application"));
}

TEST_F(PluginOperationsTest, AnUpdateReplacesThePluginAndTrashesTheOld) {
  fs::path glow = bundle(userFx(), "Glow", "1.0");
  auto update = [&](const Value& settings) {
    call("vantryUpdatePlugin:settings:", {Value(), settings});
  };
  update(plist::Dictionary{{"obj1", plist::Dictionary{{"fullPath", glow.string()}}},
                           {"obj2", archiveOf("Glow", "2.0")}});
  EXPECT_EQ(readText(glow / "Contents/MacOS/Glow"), "binary of Glow 2.0");
  EXPECT_EQ(readText(home() / ".Trash/Glow.fxplug/Contents/MacOS/Glow"), "binary of Glow 1.0");
  EXPECT_FALSE(fs::exists(glow.string() + ".zip"));
  EXPECT_TRUE(logged("Writing data to compressed file " + glow.string() + ".zip..."));
  EXPECT_TRUE(logged("Trashing old plugin " + glow.string() + "..."));
  EXPECT_TRUE(logged("Decompressing to " + glow.string() + "..."));

  // Missing pieces stop it before anything changes; a path outside is refused.
  writeText(home() / "notes.txt", "keep");
  std::size_t mark = log().size();
  update(Value());
  EXPECT_TRUE(logged("Updating plugin (null)", mark));
  EXPECT_TRUE(logged("Error: no plugin data found", mark));
  mark = log().size();
  update(plist::Dictionary{{"obj1", plist::Dictionary{{"fullPath", glow.string()}}},
                           {"obj2", "not data"}});
  EXPECT_TRUE(logged("Error: no plugin data found", mark));
  mark = log().size();
  update(plist::Dictionary{{"obj1", "a string"}, {"obj2", archiveOf("Glow", "3.0")}});
  EXPECT_TRUE(logged("Unable to determine destination filename", mark));
  mark = log().size();
  update(plist::Dictionary{{"obj1", plist::Dictionary{{"fullPath", Value()}}},
                           {"obj2", archiveOf("Glow", "3.0")}});
  EXPECT_TRUE(logged("Unable to determine destination filename", mark));
  update(
      plist::Dictionary{{"obj1", plist::Dictionary{{"fullPath", (home() / "notes.txt").string()}}},
                        {"obj2", archiveOf("notes", "3.0")}});
  EXPECT_EQ(readText(home() / "notes.txt"), "keep");
  EXPECT_EQ(readText(glow / "Contents/MacOS/Glow"), "binary of Glow 2.0");
  EXPECT_FALSE(fs::exists(home() / ".Trash/notes.txt"));
}

} // namespace
} // namespace kestrin::operations::plugin_test
