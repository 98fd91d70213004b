#pragma once

// The plug-in operations through the operation table, in-process over a throwaway machine
// whose clock the test moves, with the bundle's own ditto.

#include <climits>
#include <future>

#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/MakerTools.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/ServicesHarness.h"
#include "fixtures/StoredZip.h"
#include "fixtures/TempDir.h"
#include "foundation/PluginArchive.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVGroupItem.h"
#include "foundation/QVPluginItem.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations::plugin_test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using testing::readText;
using testing::storedZip;
using testing::writeText;

// An Info.plist as text, for archives written by hand.
inline std::string infoPlist(const std::string& name, const std::string& version) {
  auto xml = plist::toXml(
      Value(plist::Dictionary{{"CFBundleName", name}, {"CFBundleShortVersionString", version}}));
  return xml ? *xml : "";
}

class PluginOperationsTest : public ::testing::Test {
protected:
  PluginOperationsTest() {
    testing::makeMakerTool(harness.machine.root() / "Applications/Quorvane", "Vantry",
                           "com.quorvane.Vantry", plist::Array{});
    harness.errorChannel.setErrorCallback(callback);
  }

  fs::path root() const { return harness.machine.root(); }
  fs::path home() const { return harness.machine.home(); }
  fs::path computerFx() const { return root() / "Library/Plug-Ins/FxPlug"; }
  fs::path userFx() const { return home() / "Library/Plug-Ins/FxPlug"; }
  fs::path userAudioUnits() const { return home() / "Library/Audio/Plug-Ins/Components"; }
  std::string disabledFolder() const {
    return (root() / "Library/Application Support/Quorvane/Ambrant/Vantry Disabled Plugins")
        .string();
  }
  // A plug-in bundle with its Info.plist and an executable of its own.
  fs::path bundle(const fs::path& folder, const std::string& name, const std::string& version) {
    fs::path path = folder / (name + ".fxplug");
    writeText(path / "Contents/Info.plist", infoPlist(name, version));
    writeText(path / "Contents/MacOS" / name, "binary of " + name + " " + version);
    return path;
  }
  plist::Data archiveOf(const std::string& name, const std::string& version) {
    std::string top = name + ".fxplug/";
    return storedZip({{top, ""},
                      {top + "Contents/", ""},
                      {top + "Contents/Info.plist", infoPlist(name, version)},
                      {top + "Contents/MacOS/", ""},
                      {top + "Contents/MacOS/" + name, "binary of " + name + " " + version}});
  }
  std::string log() const { return harness.machine.logText(); }
  // Whether the line was logged, after the log's first `from` bytes.
  bool logged(const std::string& line, std::size_t from = 0) const {
    return log().find(" - " + line + "\n", from) != std::string::npos;
  }
  std::string vantryCalls() const { return readText(root() / "Applications/Quorvane/Vantry.args"); }
  Value call(const std::string& selector, std::vector<Value> arguments) {
    return harness.call(selector, std::move(arguments));
  }
  // A call that waits on the agent's clock: run aside while the test moves the clock.
  Value callMovingTheClock(const std::string& selector, std::vector<Value> arguments) {
    auto run = std::async(std::launch::async,
                          [&] { return harness.call(selector, std::move(arguments)); });
    for (int step = 0; run.wait_for(10ms) != std::future_status::ready && step < 3000; ++step) {
      harness.clock.advance(1s);
    }
    return run.get();
  }
  Value installRecord(const Value& type, const Value& filename) {
    plist::Dictionary record{{"name", "Glow"}};
    if (!type.isNull()) {
      record.set("type", type);
    }
    if (!filename.isNull()) {
      record.set("filename", filename);
    }
    return record;
  }
  bool gotError(std::int64_t code) const {
    for (const auto& entry : callback->calls()) {
      const plist::ErrorRecord* error =
          entry.arguments.empty() ? nullptr : entry.arguments[0].asError();
      if (error && error->code == code) {
        return true;
      }
    }
    return false;
  }

  testing::ServicesHarness harness{
      {{platform::Tool::Ditto, std::string(KESTRIN_BUNDLE_DIR) + "/Contents/MacOS/ditto"}}};
  std::shared_ptr<testing::RecordingObject> callback =
      std::make_shared<testing::RecordingObject>(testing::errorCallbackSelectors());
};

} // namespace kestrin::operations::plugin_test
