#include "admin/UpdateCommands.h"

#include <iostream>

#include <unistd.h>

#include "admin/CommandLine.h"
#include "admin/JsonValue.h"
#include "admin/PasswordPrompt.h"
#include "foundation/QVEncryption.h"

namespace kestrin::admin {

namespace {

std::string text(const plist::Value* value) {
  if (value == nullptr || value->isNull()) {
    return "-";
  }
  return value->asString() ? *value->asString() : jsonFromValue(*value);
}

// A line of input from the terminal, with its echo on: the administrator's name.
std::string askLine(const std::string& prompt) {
  std::cerr << prompt << std::flush;
  std::string line;
  if (!std::getline(std::cin, line)) {
    throw UsageError("no administrator's name given");
  }
  return line;
}

} // namespace

int updatesCommand(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  auto agent = command.connect(operands[0]);
  plist::Value count = callAgent(*agent, "softwareUpdateAvailableUpdateCount");
  std::cout << text(&count) << " update(s) available on " << operands[0] << std::endl;
  plist::Value list = callAgent(*agent, "listQuorvaneSoftwareUpdates");
  const plist::Value* updates = list.get("updates");
  if (updates == nullptr || updates->asArray() == nullptr) {
    std::cout << "(the updater gave no list; the agent's log says why)" << std::endl;
    return kExitOk;
  }
  for (const plist::Value& update : *updates->asArray()) {
    std::cout << text(update.get("bundleid")) << "\t" << text(update.get("name")) << "\t"
              << text(update.get("version")) << "\t" << text(update.get("type")) << "\n";
  }
  std::cout << std::flush;
  return kExitOk;
}

int installUpdateCommand(CommandLine& command) {
  auto user = command.option("--user");
  bool passwordFromStdin = command.flag("--password-stdin");
  if (passwordFromStdin && !user) {
    throw UsageError("--password-stdin needs --user");
  }
  auto operands = command.operands({"HOST:PORT", "BUNDLEID", "TYPE"});
  std::string name = user ? *user : askLine("Administrator's name: ");
  auto password = passwordFromStdin ? readPasswordLine(STDIN_FILENO)
                                    : promptForPassword("Password for " + name + ": ");
  if (!password) {
    throw UsageError(password.message());
  }
  plist::Dictionary credentials{{"authUser", name},
                                {"authPass", QVEncryption::encryptPassword(password->view())}};
  auto agent = command.connect(operands[0]);
  callAgent(*agent, "installQuorvaneSoftwareUpdate:settings:",
            {credentials, plist::Dictionary{{"obj1", operands[2]}, {"obj2", operands[1]}}});
  std::cout << "The agent at " << operands[0] << " is installing " << operands[1]
            << "; \"ambrant watch\" shows when it has finished, or an error." << std::endl;
  return kExitOk;
}

} // namespace kestrin::admin
