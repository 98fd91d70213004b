#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/QVTaskEx.h"
#include "operations/ArgumentDecoder.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"
#include "support/Expected.h"
#include "support/NamedException.h"

namespace kestrin::operations {

// One of the maker's tools as the front-end operations drive it: found by bundle identifier,
// run with fixed switches as the agent's user within a time limit (on the agent's timer), or
// handed with a caller's credentials to the run with administrator rights. The operations word
// their logs and reports differently on purpose; what they share is here.
//
// Arguments always reach the tool as arguments, one value each, exactly as given: never
// through a shell, so new lines, quotes and leading dashes in a value are the tool's to read.
class MakerTool {
public:
  using Arguments = QVTaskEx::Arguments;
  using TimeLimit = QVTaskEx::TimeLimit;

  // name: as the missing-tool line says it ("Lintrow"); bundleIdentifier: "com.quorvane.Lintrow".
  MakerTool(const Services& services, std::string name, std::string bundleIdentifier)
      : services_(services), name_(std::move(name)),
        bundleIdentifier_(std::move(bundleIdentifier)) {}

  const std::string& bundleIdentifier() const { return bundleIdentifier_; }

  // The tool's executable. A missing tool logs "Cannot find the location of the <name>
  // application"; a found one logs "Found application at path <executable> for bundle ID <id>"
  // when logFound is set.
  std::optional<std::string> find(bool logFound) const;

  // Runs as the agent's user and waits, within the limit: the exit status (see QVTaskEx), or
  // the output.
  int exitStatus(const std::string& executable, const Arguments& arguments, TimeLimit limit) const;
  std::optional<plist::Data> output(const std::string& executable, const Arguments& arguments,
                                    TimeLimit limit) const;

  // What the front-ends with a credentials argument share: find (logging the found line when
  // asked), log the launching line, then either hand the run to launchAuthTask:arguments:
  // authInfo: (credentials given: its rights check and report apply, and the run goes on
  // without us) or run it and wait.
  struct Launch {
    enum class Outcome { ToolMissing, HandedOver, Ran };
    Outcome outcome = Outcome::ToolMissing;
    int status = 0; // the exit status when Ran
  };
  Launch launch(const Caller& caller, const Arguments& arguments,
                const std::optional<plist::Dictionary>& credentials, bool logFound, TimeLimit limit,
                std::string_view launching = "Launching task...") const;

  // A tool's property-list output as a dictionary, or why it is none: too large, malformed, or
  // some other kind of value. Output is bounded before it is parsed.
  static Expected<plist::Dictionary> dictionaryFromOutput(const plist::Data& output);
  static constexpr std::size_t kOutputLimit = std::size_t{4} << 20;

private:
  const Services services_; // references: a copy is as good as the original
  std::string name_;
  std::string bundleIdentifier_;
};

// A scalar as a tool reads it on its command line: a string as it is, an integer in decimal, a
// boolean as 1 or 0 (the text of a boolean number); nullopt for any other kind.
std::optional<std::string> argumentText(const plist::Value& value);

// Throws ArgumentError: "\"obj1\" in the settings of S must be a string, not an array".
[[noreturn]] void throwWrongSetting(std::string_view key, std::string_view selector,
                                    std::string_view expected, const plist::Value& value);

// The value that a settings dictionary carries for one of the call's arguments ("obj1",
// "obj2"), read as a handler's parameter of type T is read: a missing key reads as null, so
// std::optional<T> allows it. Throws ArgumentError naming the key and the selector.
template <typename T>
T settingsArgument(const plist::Dictionary& settings, std::string_view key,
                   std::string_view selector) {
  static const plist::Value kMissing;
  const plist::Value* found = settings.find(key);
  const plist::Value& value = found != nullptr ? *found : kMissing;
  try {
    return ArgumentDecoder<T>::decode(value, ArgumentPosition{selector, 1});
  } catch (const ArgumentError&) {
    throwWrongSetting(key, selector, argumentKind<T>(), value);
  }
}

} // namespace kestrin::operations
