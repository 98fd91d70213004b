#pragma once

#include <optional>
#include <string>
#include <utility>

#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// The applications an administrator asks about: which editing applications and which of the
// maker's tools are installed and running, at which version; launching, quitting and
// force-quitting one; and this computer's icon at a chosen size.
//
// "Running" means a live process whose executable lies inside the application's bundle.
// Launching starts the bundle's executable in a session of its own with no descriptor of the
// agent's; a polite quit sends those processes SIGTERM and does not wait; a force quit runs
// killall with the application's name.
class ApplicationOperations {
public:
  explicit ApplicationOperations(const Services& services) : services_(services) {}
  void registerIn(OperationTable& table);

  plist::Dictionary finalCutStudioAppInfo();
  plist::Dictionary ambrantAppInfo();
  void launchApp(std::string bundleIdentifier);
  void terminateApp(std::string bundleIdentifier);
  void forceQuitApp(std::string bundleIdentifier);
  // The quit itself, on the main thread: SIGTERM to the application's processes.
  void terminateAppWithName(const std::string& name, const std::string& bundlePath);
  plist::Value computerIcon();
  plist::Value computerIconOfSize(plist::Value size);

  // A size as the admin side sends one: {"width", "height"}, [w, h] or "{w, h}"; each side
  // 1 to kMaxIconSide. Throws ArgumentError otherwise.
  static std::pair<int, int> sizeFrom(const plist::Value& size);
  static constexpr int kMaxIconSide = 1024;
  // The desktop icon theme's image of a computer.
  static constexpr const char* kComputerImage =
      "/usr/share/icons/Adwaita/512x512/devices/computer.png";

private:
  // Where the application is, whether it is running, as the inventories and quits decide.
  struct Found {
    std::string path;
    bool running = false;
  };
  plist::Dictionary inventory(const char* logLine,
                              const std::vector<std::pair<const char*, std::string>>& rows,
                              bool makerTools);
  std::optional<std::string> quitTarget(const std::string& bundleIdentifier, const char* notRunning,
                                        const char* cannotLocate, const char* noName,
                                        std::string& bundlePath);

  const Services services_;
};

} // namespace kestrin::operations
