#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fixtures/MakerTools.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/ServicesHarness.h"

namespace kestrin::testing {

// What the tests of the maker's tool front-ends share: the operations over a throwaway machine
// (with the bundle's ditto) whose clock the test moves, an admin's callback, and fake tools
// that record their arguments.
class MakerToolTest : public ::testing::Test {
protected:
  MakerToolTest() { harness.errorChannel.setErrorCallback(callback); }

  // "com.quorvane.<name>" in the maker's folder, recording its arguments, then running `then`.
  void install(const std::string& name, const std::string& then = "") {
    makeMakerTool(harness.machine.root() / "Applications/Quorvane", name, "com.quorvane." + name,
                  plist::Array{}, 0, recordingArguments(argumentsOf(name), then));
  }
  std::filesystem::path argumentsOf(const std::string& name) const {
    return harness.machine.root() / (name + ".args");
  }
  // The arguments of the tool's last run, or nullopt when it never ran.
  std::optional<std::vector<std::string>> ran(const std::string& name) const {
    return recordedArguments(argumentsOf(name));
  }
  bool logged(const std::string& line) const {
    return harness.machine.logText().find(line) != std::string::npos;
  }
  // What reached the admin, in order: errors and texts as their first argument, other events
  // by their selector.
  std::vector<plist::Value> events() const {
    std::vector<plist::Value> seen;
    for (const auto& call : callback->calls()) {
      seen.push_back(call.arguments.empty() ? plist::Value(call.selector) : call.arguments[0]);
    }
    return seen;
  }
  static plist::Value ambrantError(std::int64_t code,
                                   std::optional<std::string> info = std::nullopt) {
    plist::ErrorRecord record{"ambrantDomain", code, {}};
    if (info) {
      record.userInfo.set("info", *info);
    }
    return record;
  }

  ServicesHarness harness{
      {{platform::Tool::Ditto, std::string(KESTRIN_BUNDLE_DIR) + "/Contents/MacOS/ditto"}}};
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(errorCallbackSelectors());
};

} // namespace kestrin::testing
