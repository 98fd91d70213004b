#include "admin/ApplicationCommands.h"

#include <iostream>

#include <fmt/format.h>

#include "admin/CommandLine.h"

namespace kestrin::admin {

namespace {

std::string yesNo(const plist::Value* value) {
  if (value == nullptr) {
    return "-";
  }
  return value->boolValue().value_or(false) ? "yes" : "no";
}

} // namespace

void printInventory(std::ostream& out, const std::string& title, const plist::Dictionary& records) {
  out << title << "\n"
      << fmt::format("  {:<24} {:<10} {:<8} {}\n", "name", "installed", "running", "version");
  for (const auto& [name, record] : records) {
    const plist::Value* version = record.get("version");
    out << fmt::format("  {:<24} {:<10} {:<8} {}\n", name, yesNo(record.get("installed")),
                       yesNo(record.get("running")),
                       version && version->asString() ? *version->asString() : "-");
  }
}

int appsCommand(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  auto agent = command.connect(operands[0]);
  for (const auto& [selector, title] : {std::pair{"finalCutStudioAppInfo", "Editing applications"},
                                        std::pair{"ambrantAppInfo", "The maker's tools"}}) {
    plist::Value records = callAgent(*agent, selector);
    if (!records.asDictionary()) {
      throw CommandFailure(kExitAgentError, fmt::format("the agent answered no {}", selector));
    }
    printInventory(std::cout, title, *records.asDictionary());
  }
  std::cout << std::flush;
  return kExitOk;
}

} // namespace kestrin::admin
