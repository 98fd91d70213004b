#include "operations/MakerTool.h"

#include <fmt/format.h>

#include "foundation/QVLog.h"
#include "operations/ApplicationCatalog.h"
#include "operations/CredentialOperations.h"
#include "operations/MakerApplications.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::operations {

namespace {

// "an array", "a string": a value's kind as an error text names it.
std::string withArticle(const plist::Value& value) {
  std::string_view kind = plist::kindName(value.kind());
  bool vowel = std::string_view("aeiou").find(kind.front()) != std::string_view::npos;
  return fmt::format("{} {}", vowel ? "an" : "a", kind);
}

} // namespace

std::optional<std::string> MakerTool::find(bool logFound) const {
  auto bundle = services_.applications.pathForAppWithBundleID(bundleIdentifier_);
  if (!bundle) {
    QVLog::appendLog("Cannot find the location of the {} application", name_);
    return std::nullopt;
  }
  std::string executable = executableOfBundle(*bundle);
  if (logFound) {
    QVLog::appendLog("Found application at path {} for bundle ID {}", executable,
                     bundleIdentifier_);
  }
  return executable;
}

int MakerTool::exitStatus(const std::string& executable, const Arguments& arguments,
                          TimeLimit limit) const {
  return QVTaskEx::terminationCodeFromTask(executable, arguments, limit, services_.timer);
}

std::optional<plist::Data> MakerTool::output(const std::string& executable,
                                             const Arguments& arguments, TimeLimit limit) const {
  return QVTaskEx::dataFromTask(executable, arguments, limit, services_.timer);
}

MakerTool::Launch MakerTool::launch(const Caller& caller, const Arguments& arguments,
                                    const std::optional<plist::Dictionary>& credentials,
                                    bool logFound, TimeLimit limit,
                                    std::string_view launching) const {
  auto executable = find(logFound);
  if (!executable) {
    return {Launch::Outcome::ToolMissing, 0};
  }
  QVLog::appendLog("{}", launching);
  if (credentials) {
    plist::Array values(arguments.begin(), arguments.end());
    CredentialOperations(services_.credentials, services_.errorChannel)
        .launchAuthTask(caller, *executable, std::move(values), credentials);
    return {Launch::Outcome::HandedOver, 0};
  }
  return {Launch::Outcome::Ran, exitStatus(*executable, arguments, limit)};
}

Expected<plist::Dictionary> MakerTool::dictionaryFromOutput(const plist::Data& output) {
  if (output.size() > kOutputLimit) {
    return Failure{fmt::format("{} bytes of output, more than the {} a listing may have",
                               output.size(), kOutputLimit)};
  }
  auto value = plist::parse(output);
  if (!value) {
    return value.failure();
  }
  if (plist::Dictionary* dictionary = value->asDictionary()) {
    return std::move(*dictionary);
  }
  return Failure{fmt::format("the output is {}, not a dictionary", withArticle(*value))};
}

std::optional<std::string> argumentText(const plist::Value& value) {
  if (const std::string* text = value.asString()) {
    return *text;
  }
  if (auto flag = value.asBool()) {
    return *flag ? "1" : "0";
  }
  if (auto number = value.asInteger()) {
    return std::to_string(*number);
  }
  if (auto real = value.asReal()) {
    return fmt::format("{}", *real);
  }
  return std::nullopt;
}

void throwWrongSetting(std::string_view key, std::string_view selector, std::string_view expected,
                       const plist::Value& value) {
  if (value.isNull()) {
    throw ArgumentError(fmt::format("\"{}\" is missing from the settings of {} (it must be {})",
                                    key, selector, expected));
  }
  throw ArgumentError(fmt::format("\"{}\" in the settings of {} must be {}, not {}", key, selector,
                                  expected, withArticle(value)));
}

} // namespace kestrin::operations
