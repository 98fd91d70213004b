// Software updates through the operation table: the cached count and its daily timer, the
// updater's list, a fresh updater from the feed when the installed one is missing or too old,
// manual downloads and installs; with a fake updater and a feed on a loopback HTTP server.

#include <fstream>

#include "MakerToolTest.h"
#include <fmt/format.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/LoopbackHttpServer.h"
#include "fixtures/StoredZip.h"
#include "foundation/DigestContext.h"
#include "operations/SoftwareUpdateOperations.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::LoopbackHttpServer;

constexpr const char* kUpdater = "Quorvane Software Update";

std::string listOf(int entries) {
  plist::Array updates;
  for (int i = 0; i < entries; ++i) {
    updates.push_back(plist::Dictionary{
        {"bundleid", i == 0 ? "com.quorvane.Kestrin" : "com.quorvane.Tool" + std::to_string(i)}});
  }
  return *plist::toXml(Value(plist::Dictionary{{"updates", updates}}));
}

class SoftwareUpdateTest : public testing::MakerToolTest {
protected:
  SoftwareUpdateTest() {
    // killall and the browser are the desktop's: recorded, never run.
    std::ofstream(opened) << "";
    harness.tools = harness.tools.withPath(platform::Tool::Killall, "/bin/true");
    std::ofstream(browser) << "#!/bin/sh\nprintf '%s\\n' \"$@\" >> '" << opened.string() << "'\n";
    fs::permissions(browser, fs::perms::owner_all);
    harness.tools = harness.tools.withPath(platform::Tool::XdgOpen, browser.string());
    (void)harness.settings.setObject(feed.url("/feed.plist"), "softwareUpdateFeedURL");
  }

  fs::path folder() const { return harness.machine.root() / "Applications/Quorvane"; }
  fs::path executable() const {
    return folder() / (std::string(kUpdater) + ".app/Contents/MacOS/" + kUpdater);
  }
  // An updater of that build that prints `output` (a list) and counts its runs.
  void installUpdater(const fs::path& where, int build, const std::string& output, int status = 0) {
    fs::create_directories(where);
    // The list travels inside the script, so an updater zipped up elsewhere still prints it.
    testing::makeMakerTool(where, kUpdater, SoftwareUpdateOperations::kUpdaterIdentifier,
                           plist::Array{}, 0,
                           "echo \"$@\" >> '" + runsFile().string() + "'\nprintf '%s' '" + output +
                               "'\nexit " + std::to_string(status));
    fs::path info = where / (std::string(kUpdater) + ".app/Contents/Info.plist");
    auto dictionary = plist::readFile(info);
    dictionary->asDictionary()->set("CFBundleVersion", std::to_string(build));
    (void)plist::writeFile(info, *dictionary);
  }
  fs::path runsFile() const { return harness.machine.root() / "updater.runs"; }
  int runs() const {
    std::ifstream in(runsFile());
    int lines = 0;
    for (std::string line; std::getline(in, line);) {
      ++lines;
    }
    return lines;
  }
  // A zip of an updater bundle, as the feed's archive.
  plist::Data updaterArchive(int build, const std::string& output) {
    testing::TempDir scratch;
    installUpdater(scratch.path(), build, output);
    fs::path zip = scratch.path() / "updater.zip";
    std::string ditto = std::string(KESTRIN_BUNDLE_DIR) + "/Contents/MacOS/ditto";
    std::string command = "'" + ditto + "' -c -k --keepParent '" +
                          (scratch.path() / (std::string(kUpdater) + ".app")).string() + "' '" +
                          zip.string() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::ifstream in(zip, std::ios::binary);
    return plist::Data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  void serveFeed(const plist::Data& archive, std::optional<std::string> digest = std::nullopt) {
    plist::Dictionary feedFields{{"alternateURL", feed.url("/updater.zip")}};
    if (digest) {
      feedFields.set("alternateSHA256", *digest);
    }
    feed.route("/feed.plist", {200, *plist::toXml(Value(feedFields)), "", 0, false});
    feed.route("/updater.zip", {200, std::string(archive.begin(), archive.end()), "", 0, false});
  }
  int eventsNamed(const std::string& selector) const {
    int count = 0;
    for (const auto& call : callback->calls()) {
      count += call.selector == selector;
    }
    return count;
  }

  LoopbackHttpServer feed;
  testing::TempDir scratch;
  fs::path opened = scratch.path() / "opened";
  fs::path browser = scratch.path() / "xdg-open";
};

TEST_F(SoftwareUpdateTest, TheCountIsCachedForADayForcedOnDemandAndRefreshedByItsTimer) {
  installUpdater(folder(), 1270, listOf(3));
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount"), Value(3)); // its own id too
  EXPECT_EQ(runs(), 1);
  EXPECT_EQ(harness.settings.object("availableUpdateCount"), Value(3));
  EXPECT_TRUE(harness.settings.object("availableUpdateCountLastUpdate").asDate());
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount"), Value(3));
  EXPECT_EQ(runs(), 1);
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount:", {Value(true)}), Value(3));
  EXPECT_EQ(runs(), 2);
  EXPECT_EQ(feed.requests("/feed.plist"), 0); // build 1270 is recent enough

  int configs = eventsNamed("updateConfig:");
  harness.advance(24h + 1s); // the timer's count, a day after the last one
  EXPECT_EQ(runs(), 3);
  EXPECT_EQ(eventsNamed("updateConfig:"), configs + 1);
  harness.call("fetchSoftwareUpdateAvailableUpdateCount");
  ASSERT_FALSE(callback->calls().empty());
  EXPECT_EQ(callback->calls().back().selector, "setSoftwareUpdateCount:hostname:");
  EXPECT_EQ(callback->calls().back().arguments, (std::vector<Value>{3, "studio-4.local."}));
}

TEST_F(SoftwareUpdateTest, SwitchedOffTheCountIsZeroAndNothingIsScheduled) {
  installUpdater(folder(), 1270, listOf(3));
  (void)harness.settings.setObject(0, "autoUpdateCheck");
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount:", {Value(true)}), Value(0));
  harness.advance(48h);
  EXPECT_EQ(runs(), 0);
}

TEST_F(SoftwareUpdateTest, AFailingListKeepsTheCachedCountAndStillReschedules) {
  installUpdater(folder(), 1270, listOf(2));
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount"), Value(2));
  Value date = harness.agent.updateDate;
  installUpdater(folder(), 1270, "", 1);
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount:", {Value(true)}), Value(2));
  EXPECT_EQ(harness.agent.updateDate, date);
  EXPECT_TRUE(logged("No data from Software Update task"));
  harness.advance(24h + 1s);
  EXPECT_EQ(runs(), 3);

  // Lists that are no lists, or odd ones, answer null or count what they hold.
  for (const auto& [output, answer, count] :
       {std::tuple{std::string("not a plist"), false, 2},
        std::tuple{*plist::toXml(Value(plist::Array{})), false, 2},
        std::tuple{*plist::toXml(Value(plist::Dictionary{{"other", 1}})), true, 0},
        std::tuple{*plist::toXml(Value(plist::Dictionary{{"updates", plist::Array{1, "x"}}})), true,
                   2}}) {
    installUpdater(folder(), 1270, output);
    harness.agent.updateCount = 2;
    EXPECT_EQ(!harness.call("listQuorvaneSoftwareUpdates").isNull(), answer) << output;
    EXPECT_EQ(harness.agent.updateCount, Value(count)) << output;
  }
}

TEST_F(SoftwareUpdateTest, AnUpdaterTooOldIsReplacedFromTheFeedBeforeListing) {
  installUpdater(folder(), 1269, listOf(5));
  serveFeed(updaterArchive(1300, listOf(2)));
  auto list = harness.call("listQuorvaneSoftwareUpdates");
  ASSERT_TRUE(list.asDictionary()) << harness.machine.logText();
  EXPECT_EQ(list.get("updates")->asArray()->size(), 2u);
  auto info = plist::readFile(folder() / (std::string(kUpdater) + ".app/Contents/Info.plist"));
  EXPECT_EQ(*info->get("CFBundleVersion"), Value("1300"));
  EXPECT_FALSE(fs::exists(folder() / (std::string(kUpdater) + ".zip")));

  // None at all: fetched into the maker's folder.
  fs::remove_all(folder());
  EXPECT_EQ(harness.call("softwareUpdateAvailableUpdateCount:", {Value(true)}), Value(2));
  EXPECT_TRUE(fs::exists(executable()));
}

TEST_F(SoftwareUpdateTest, FeedsAndArchivesThatAreWrongInstallNothing) {
  platform::HttpLimits quick;
  quick.stall = 1s;
  quick.total = 20s;
  quick.maxBytes = 1 << 20;
  SoftwareUpdateOperations updates(harness.services, quick, quick);
  plist::Data good = updaterArchive(1300, listOf(1));
  Sha256Context digest;
  digest.update(good);
  std::string hex;
  for (auto byte : digest.digest()) {
    hex += fmt::format("{:02x}", byte);
  }
  fs::path destination = harness.machine.root() / "Applications/Fresh";
  auto installed = [&] { return updates.downloadAndInstallSoftwareUpdater(destination.string()); };
  auto feedSays = [&](LoopbackHttpServer::Route route) { feed.route("/feed.plist", route); };
  using Route = LoopbackHttpServer::Route;

  feedSays(Route{200, "not a property list", "", 0, false});
  EXPECT_FALSE(installed());
  feedSays(Route{200, *plist::toXml(Value(plist::Dictionary{{"other", "x"}})), "", 0, false});
  EXPECT_FALSE(installed());
  feedSays(Route{404, "gone", "", 0, false});
  EXPECT_FALSE(installed());
  feedSays(Route{302, "", feed.url("/feed.plist"), 0, false});
  EXPECT_FALSE(installed());
  // Plain http only to this machine, however the address is dressed up.
  for (std::string disguised :
       {"http://127.0.0.1:80@192.0.2.1/feed", "http://localhost:x@192.0.2.1/",
        "http://[::1]:1@192.0.2.1/", "http://192.0.2.1/127.0.0.1/"}) {
    EXPECT_FALSE(platform::isFetchableUrl(disguised)) << disguised;
  }
  EXPECT_TRUE(platform::isFetchableUrl(feed.url("/feed.plist")));
  feedSays(Route{200, "", "", std::size_t{100} << 20, false});
  EXPECT_FALSE(installed());
  feedSays(Route{200, std::string(4096, ' '), "", 0, true});
  EXPECT_FALSE(installed());
  for (const plist::Data& archive :
       {plist::Data{'n', 'o', 't', ' ', 'z', 'i', 'p'},
        testing::storedZip({{"../escaped", "x"}, {"Quorvane Software Update.app/", ""}}),
        testing::storedZip({{"Quorvane Software Update.app/Contents/Info.plist", "<plist/>"}})}) {
    serveFeed(archive);
    EXPECT_FALSE(installed());
  }
  EXPECT_FALSE(fs::exists(destination.parent_path() / "escaped"));
  serveFeed(good, std::string(64, '0'));
  EXPECT_FALSE(installed());
  EXPECT_TRUE(logged("Refusing the downloaded software updater: its SHA-256 is " + hex));
  EXPECT_FALSE(
      fs::exists(destination / (std::string(kUpdater) + ".app/Contents/MacOS") / kUpdater));

  serveFeed(good, hex);
  EXPECT_EQ(installed(),
            (destination / (std::string(kUpdater) + ".app/Contents/MacOS/") / kUpdater).string());
}

TEST_F(SoftwareUpdateTest, ManualDownloadsOpenOnlyTheMakersPagesAndInstallsNeedCredentials) {
  harness.call("softwareUpdateManualInstall:", {Value("https://www.quorvane.com/updates/x.dmg")});
  for (const char* hostile : {"file:///etc/passwd", "javascript:alert(1)",
                              "https://www.quorvane.com.evil/x", "https://www.quorvane.com/",
                              "https://www.quorvane.com/a b", "-https://www.quorvane.com/"}) {
    harness.call("softwareUpdateManualInstall:", {Value(hostile)});
  }
  EXPECT_TRUE(testing::eventually([&] { return testing::readText(opened) != ""; }));
  EXPECT_EQ(testing::readText(opened), "https://www.quorvane.com/updates/x.dmg\n");
  EXPECT_EQ(eventsNamed("addStringToQueue:hostname:") + eventsNamed("addStringToQueue:userInfo:"),
            6);
  EXPECT_TRUE(logged("Unable to initiate manual download - invalid URL."));
  EXPECT_THROW(harness.call("softwareUpdateManualInstall:", {Value(5)}), ArgumentError);

  installUpdater(folder(), 1270, listOf(1));
  auto install = [&](Value settings, Value credentials = {}) {
    return harness.call("installQuorvaneSoftwareUpdate:settings:", {credentials, settings});
  };
  install(plist::Dictionary{{"obj1", "full"}, {"obj2", "com.quorvane.Tool"}});
  EXPECT_EQ(events().back(), ambrantError(1006));
  install(plist::Dictionary{{"obj1", "full"}});
  EXPECT_TRUE(logged("Error: no bundle ID specified"));
  install(plist::Dictionary{{"obj2", "com.quorvane.Tool"}});
  EXPECT_TRUE(logged("Error: no type data found"));
  EXPECT_THROW(install(plist::Dictionary{{"obj1", "full"}, {"obj2", 5}}), ArgumentError);
  EXPECT_EQ(runs(), 0);
}

} // namespace
} // namespace kestrin::operations
