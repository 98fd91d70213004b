// The plug-in operations through the real agent over a real socket: hostile records and
// archives, several admins at once, and ambrant's plug-in tree and copy between two agents.

#include <thread>

#include <gtest/gtest.h>

#include "RunningAgent.h"
#include "fixtures/StoredZip.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::readText;
using testing::runAmbrant;
using testing::RunningAgent;
using testing::writeText;

// An agent whose computer-wide FxPlug folder holds Glow 2.0 (a bundle) and Wipe (a file).
class PluginAgent {
public:
  PluginAgent()
      : agent({}, {}, [](const fs::path& root) {
          fs::path fx = root / "Library/Plug-Ins/FxPlug";
          auto info = plist::toXml(Value(
              plist::Dictionary{{"CFBundleName", "Glow"}, {"CFBundleShortVersionString", "2.0"}}));
          writeText(fx / "Glow.fxplug/Contents/Info.plist", info ? *info : "");
          writeText(fx / "Glow.fxplug/Contents/MacOS/Glow", "Glow 2.0");
          writeText(fx / "Acme/Wipe.fxplug", "Wipe");
        }) {
    port = agent.waitForPort();
  }
  fs::path root() const { return agent.home().parent_path() / "root"; }
  fs::path fx() const { return root() / "Library/Plug-Ins/FxPlug"; }
  fs::path userFx() const { return agent.home() / "Library/Plug-Ins/FxPlug"; }
  std::string where() const { return "127.0.0.1:" + std::to_string(port); }
  std::unique_ptr<transport::RpcClient> connect() const {
    auto client = transport::RpcClient::connectTcp("127.0.0.1", port, 10s);
    EXPECT_TRUE(client.ok()) << client.message();
    return client ? std::move(*client) : nullptr;
  }

  RunningAgent agent;
  int port = 0;
};

TEST(Plugins, HostileRecordsAndArchivesAreTurnedAwayByTheRealAgent) {
  PluginAgent machine;
  ASSERT_NE(machine.port, 0) << readText(machine.agent.output());
  auto client = machine.connect();
  ASSERT_TRUE(client);
  auto call = [&](const std::string& selector, std::vector<Value> arguments) {
    return client->root()->invoke(selector, std::move(arguments));
  };
  writeText(machine.agent.home() / "secret.txt", "secret");

  for (const Value& record :
       {Value(), Value(plist::Dictionary{}), Value(plist::Dictionary{{"fullPath", 42}}),
        Value(plist::Dictionary{{"fullPath", (machine.agent.home() / "secret.txt").string()}}),
        Value(
            plist::Dictionary{{"fullPath", (machine.fx() / "../../../home/secret.txt").string()}}),
        Value(plist::Dictionary{{"fullPath", std::string(1 << 20, '/')}})}) {
    EXPECT_TRUE(call("vantryPluginData:", {record}).isNull()) << plist::describe(record);
  }
  // Wrong kinds are the caller's error; the connection and the agent stay.
  EXPECT_THROW(call("vantryPluginData:", {Value("Glow")}), NamedException);
  EXPECT_THROW(call("vantryInstallPlugin:withData:", {plist::Dictionary{}, Value(3)}),
               NamedException);

  plist::Data escaping = testing::storedZip(
      {{"Evil.fxplug/", ""}, {"Evil.fxplug/x", "x"}, {"../../../Evil.txt", "outside"}});
  const std::string junk = "not a zip";
  call("vantryInstallPlugin:withData:",
       {plist::Dictionary{{"type", "FxPlug"}, {"filename", "../../../Evil.fxplug"}}, escaping});
  call("vantryInstallPlugin:withData:",
       {plist::Dictionary{{"type", "FxPlug"}, {"filename", "/etc/Junk.fxplug"}},
        plist::Data(junk.begin(), junk.end())});
  call("vantryInstallPlugin:withData:",
       {plist::Dictionary{{"type", plist::Array{}}, {"filename", ".."}}, escaping});
  call("vantryUpdatePlugin:settings:",
       {Value(), plist::Dictionary{
                     {"obj1", plist::Dictionary{{"fullPath",
                                                 (machine.agent.home() / "secret.txt").string()}}},
                     {"obj2", escaping}}});
  EXPECT_EQ(call("vantryNeedsAdminAccess:settings:",
                 {plist::Array{Value(1), plist::Dictionary{{"fullPath", plist::Array{}}}},
                  plist::Dictionary{{"destAccess", "x"}}}),
            Value(false));
  EXPECT_TRUE(call("subdirForPluginPath:", {std::string(1 << 20, 'a')}).isNull());

  EXPECT_FALSE(fs::exists(machine.agent.home() / "Evil.txt"));
  EXPECT_FALSE(fs::exists(machine.agent.home() / "Library/Evil.txt"));
  EXPECT_FALSE(fs::exists(machine.userFx() / "Junk.fxplug"));
  EXPECT_EQ(readText(machine.agent.home() / "secret.txt"), "secret");
  // An archive with one entry reaching out is refused whole.
  EXPECT_FALSE(fs::exists(machine.userFx() / "Evil.fxplug"));

  Value list = call("vantryPluginList", {});
  ASSERT_TRUE(list.asArray());
  EXPECT_EQ(list.asArray()->size(), 2u);
  EXPECT_TRUE(machine.agent.logContains("Unknown plugin type"));
  EXPECT_TRUE(machine.agent.logContains("Unable to decompress plugin"));
  EXPECT_TRUE(machine.agent.logContains("Unable to determine destination filename"));
  EXPECT_TRUE(machine.agent.logContains("not inside a plug-in folder"));
}

TEST(Plugins, SeveralAdminsListFetchAndInstallAtOnce) {
  PluginAgent machine;
  ASSERT_NE(machine.port, 0) << readText(machine.agent.output());
  constexpr int kAdmins = 4;
  std::vector<std::thread> admins;
  std::vector<std::string> failures(kAdmins);
  for (int admin = 0; admin < kAdmins; ++admin) {
    admins.emplace_back([&, admin] {
      auto client = machine.connect();
      if (!client) {
        failures[admin] = "no connection";
        return;
      }
      for (int round = 0; round < 3; ++round) {
        Value list = client->root()->invoke("vantryPluginList", {});
        if (!list.asArray() || list.asArray()->size() < 2) {
          failures[admin] = "short list: " + plist::describe(list);
          return;
        }
        Value glow = plist::Dictionary{{"fullPath", (machine.fx() / "Glow.fxplug").string()},
                                       {"package", true}};
        Value data = client->root()->invoke("vantryPluginData:", {glow});
        if (!data.asData()) {
          failures[admin] = "no data";
          return;
        }
        std::string name = "Client" + std::to_string(admin) + ".fxplug";
        plist::Data own =
            testing::storedZip({{name + "/", ""}, {name + "/round", std::to_string(round)}});
        client->root()->invoke("vantryInstallPlugin:withData:",
                               {plist::Dictionary{{"type", "FxPlug"}, {"filename", name}}, own});
      }
    });
  }
  for (auto& admin : admins) {
    admin.join();
  }
  for (int admin = 0; admin < kAdmins; ++admin) {
    EXPECT_EQ(failures[admin], "") << admin;
  }
  for (int admin = 0; admin < kAdmins; ++admin) {
    EXPECT_EQ(readText(machine.userFx() / ("Client" + std::to_string(admin) + ".fxplug/round")),
              "2");
  }
  for (const auto& entry : fs::directory_iterator(machine.userFx())) {
    EXPECT_NE(entry.path().extension(), ".zip") << entry.path();
  }
}

TEST(Plugins, AmbrantPrintsTheTreeAndCopiesAPluginBetweenAgents) {
  PluginAgent from;
  PluginAgent to;
  ASSERT_NE(from.port, 0) << readText(from.agent.output());
  ASSERT_NE(to.port, 0) << readText(to.agent.output());

  auto [status, tree] = runAmbrant("plugins " + from.where());
  EXPECT_EQ(status, 0);
  EXPECT_EQ(tree, "FxPlug\n"
                  "  " +
                      from.fx().string() +
                      "\n"
                      "    Acme/\n"
                      "      Wipe\t-\tenabled\tcomputer\n"
                      "    Glow\t2.0\tenabled\tcomputer\n");

  std::string glow = (from.fx() / "Glow.fxplug").string();
  auto copied = runAmbrant("copy-plugin " + from.where() + " " + to.where() + " '" + glow + "'");
  EXPECT_EQ(copied.first, 0) << to.agent.logText();
  EXPECT_EQ(copied.second,
            "Installed " + (to.userFx() / "Glow.fxplug").string() + " on " + to.where() + "\n");
  EXPECT_EQ(readText(to.userFx() / "Glow.fxplug/Contents/MacOS/Glow"), "Glow 2.0");
  auto [after, copiedTree] = runAmbrant("plugins " + to.where());
  EXPECT_NE(copiedTree.find("  " + to.userFx().string() + "\n    Glow\t2.0\tenabled\tuser\n"),
            std::string::npos)
      << copiedTree;

  EXPECT_EQ(runAmbrant("copy-plugin " + from.where() + " " + to.where() + " /etc/passwd").first, 1);
  EXPECT_EQ(runAmbrant("copy-plugin " + from.where() + " 127.0.0.1:1 " + glow).first, 2);
  EXPECT_EQ(runAmbrant("plugins").first, 64);
}

} // namespace
} // namespace kestrin
