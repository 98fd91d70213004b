#pragma once

#include <functional>
#include <optional>
#include <string>

#include "plist/Value.h"

namespace kestrin {

class QVLocalPaths;
namespace platform {
class ToolTable;
}

// Tells at start-up whether the previous run ended without its orderly stop, and if so finds
// the crash report written for it and offers it to the maker's bug reporter. Two stamps in a
// property-list file carry the evidence: "launch" at every start, "exit" at every orderly stop.
// A killed agent never writes "exit", so its next start sees "exit" earlier than "launch".
class QVBugReporter {
public:
  using Delegate = std::function<void(const std::string& crashLog)>;
  // Puts one stamp into the file at plistPath; true once it is on disk. A file that other
  // programs change too (the agent's settings, which the preference pane writes) needs its
  // owner's locked read-modify-write here, or a stamp and a setting written at the same moment
  // lose one another. Without a writer the file is read, changed and replaced unlocked.
  using StampWriter = std::function<bool(const std::string& key, const plist::Value& value)>;

  // Checks for a crash of the previous run (the delegate gets the report's path), then stamps
  // "launch" into the file at plistPath.
  static void startBugReporter(const std::optional<std::string>& applicationName,
                               const std::string& plistPath, const Delegate& delegate);
  static void startBugReporter(const QVLocalPaths& paths, const platform::ToolTable& tools,
                               const std::optional<std::string>& applicationName,
                               const std::string& plistPath, const Delegate& delegate,
                               const StampWriter& writer = {});
  // Stamps "exit".
  static void stopBugReporter(const std::string& plistPath);
  static void stopBugReporter(const QVLocalPaths& paths, const platform::ToolTable& tools,
                              const std::string& plistPath, const StampWriter& writer = {});

  // The report of a crash of the previous run, or nullopt (first run, orderly end, no report
  // newer than the launch).
  static std::optional<std::string>
  checkForCrashes(const QVLocalPaths& paths, const platform::ToolTable& tools,
                  const std::optional<std::string>& applicationName, const std::string& plistPath);

  // Gives a file under a user's home back to that user when the agent wrote it as root.
  static void chownPlist(const platform::ToolTable& tools, const std::string& path);
};

} // namespace kestrin
