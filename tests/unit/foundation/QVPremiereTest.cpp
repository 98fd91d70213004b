#include "foundation/QVPremiere.h"

#include <fstream>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "fixtures/ThrowawayMachine.h"
#include "platform/Workspace.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using plist::Value;
using testing::writeText;
using Versions = std::vector<std::string>;

std::string configuration(const std::string& version) {
  return "<?xml version=\"1.0\"?><Configuration><VariableForExMan><Data key=\"ProductVersion\">" +
         version + "</Data></VariableForExMan></Configuration>";
}

class QVPremiereTest : public ::testing::Test {
protected:
  // "<Applications>/<folder>/<application>.app" with the Info.plist entries given.
  fs::path application(const std::string& folder, const std::string& name, plist::Dictionary info) {
    fs::path bundle = applications / folder / (name + ".app");
    fs::create_directories(bundle / "Contents");
    EXPECT_TRUE(plist::writeFile(bundle / "Contents/Info.plist", Value(std::move(info))).ok());
    return bundle;
  }
  void configurationFile(const std::string& folder, const std::string& text) {
    writeText(applications / folder / "Configuration/XManConfig.xml", text);
  }

  testing::ThrowawayMachine machine;
  fs::path applications = machine.root() / "Applications";
  platform::Workspace nowhere{{}, std::nullopt};
};

TEST_F(QVPremiereTest, VersionsComeFromBundlesElseTheConfigurationInFoundOrder) {
  application("Adobe Premiere Pro CS5", "Adobe Premiere Pro CS5",
              {{"CFBundleIdentifier", QVPremiere::kBundleIdentifier}, {"CFBundleVersion", "5.0"}});
  // CFBundleVersionString is preferred when there is one.
  application("adobe premiere pro CS6", "adobe premiere pro CS6",
              {{"CFBundleVersionString", "6.0.2"}, {"CFBundleVersion", "6.0.2.9"}});
  configurationFile("Adobe Premiere Pro CS5.5", configuration("5.5"));
  // Ignored: another name, and a bundle with no version (no fall-back to its configuration).
  application("Final Cut Pro", "Final Cut Pro", {{"CFBundleVersion", "7.0"}});
  application("Adobe Premiere Elements", "Adobe Premiere Elements", {});
  configurationFile("Adobe Premiere Elements", configuration("9.0"));

  EXPECT_EQ(QVPremiere(machine.paths(), nowhere).premiereVersions(),
            (Versions{"5.0", "5.5", "6.0.2"}));

  // The application the workspace knows comes first, and what the local folder repeats is
  // listed once.
  fs::create_directories(machine.home() / "Applications/Adobe Premiere Pro CC");
  applications = machine.home() / "Applications";
  fs::path known = application(
      "Adobe Premiere Pro CC", "Adobe Premiere Pro CC",
      {{"CFBundleIdentifier", QVPremiere::kBundleIdentifier}, {"CFBundleVersion", "7.0"}});
  application("Adobe Premiere Pro CS5", "Adobe Premiere Pro CS5", {{"CFBundleVersion", "5.0"}});
  platform::Workspace workspace({known.parent_path().string()}, std::nullopt);
  EXPECT_EQ(QVPremiere(machine.paths(), workspace).premiereVersions(),
            (Versions{"7.0", "5.0", "5.5", "6.0.2"}));
}

TEST_F(QVPremiereTest, SuiteVersionsAreMajorAndMinorOfTheBundle) {
  application("Adobe Premiere Pro 2012", "Adobe Premiere Pro 2012", {{"CFBundleVersion", "6.0.5"}});
  application("Adobe Premiere Pro 6", "Adobe Premiere Pro Six", {{"CFBundleVersion", "6"}});
  configurationFile("Adobe Premiere Pro CS5", configuration("5.0.1"));
  EXPECT_EQ(QVPremiere(machine.paths(), nowhere).suiteVersions(), (Versions{"6.0", "6", "5.0.1"}));
}

TEST_F(QVPremiereTest, HostileConfigurationsFallBackToTheBundleOrGiveNothing) {
  const std::string bigFolder = "Adobe Premiere Pro Big";
  configurationFile("Adobe Premiere Pro Entities",
                    "<?xml version='1.0'?><!DOCTYPE C [<!ENTITY v '9.9'>]>"
                    "<Configuration><VariableForExMan><Data key='ProductVersion'>&v;</Data>"
                    "</VariableForExMan></Configuration>");
  application("Adobe Premiere Pro Entities", "Adobe Premiere Pro E",
              {{"CFBundleVersion", "1.2.3"}});
  configurationFile("Adobe Premiere Pro Garbage", "\x89PNG\r\n not XML at all");
  application("Adobe Premiere Pro Garbage", "Adobe Premiere Pro G", {{"CFBundleVersion", "2.0"}});
  configurationFile(bigFolder, "");
  fs::resize_file(applications / bigFolder / "Configuration/XManConfig.xml", 50u << 20);
  application(bigFolder, "Adobe Premiere Pro B", {{"CFBundleVersion", "3.1.4"}});
  // A query-breaking version text is just text.
  configurationFile("Adobe Premiere Pro Quote", configuration("7' or '1'='1"));

  EXPECT_EQ(QVPremiere::suiteVersionsInFolder(applications.string()),
            (Versions{"3.1", "1.2", "2.0", "7' or '1'='1"}));
  // Without bundles of the folder's own name, only well-formed configurations count.
  EXPECT_EQ(QVPremiere::versionsForAppName("Adobe Premiere ", applications.string()),
            (Versions{"7' or '1'='1"}));
  EXPECT_EQ(QVPremiere::suiteVersionsInFolder((applications / "missing").string()), Versions{});
}

} // namespace
} // namespace kestrin
