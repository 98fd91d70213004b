#include "admin/PluginCommands.h"

#include <iostream>

#include "admin/AdminClient.h"
#include "admin/CommandLine.h"
#include "foundation/BundleInfoFile.h"
#include "foundation/PluginArchive.h"
#include "foundation/QVGroupItem.h"
#include "foundation/QVPluginItem.h"
#include "support/NamedException.h"

namespace kestrin::admin {

namespace {

void printGroup(std::ostream& out, const QVGroupItem& group, int depth) {
  std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  for (const QVTreeItem& child : group.children()) {
    if (const auto* inner = std::get_if<std::shared_ptr<QVGroupItem>>(&child)) {
      // Types and folders by name; sub-folders, deeper down, with a slash.
      out << indent << (*inner)->title().value_or("") << (depth >= 2 ? "/" : "") << "\n";
      printGroup(out, **inner, depth + 1);
      continue;
    }
    const QVPluginItem& plugin = *std::get<std::shared_ptr<QVPluginItem>>(child);
    const auto& enabled = plugin.pluginEnabled();
    out << indent << plugin.shortName().value_or(plugin.fileName().value_or("")) << "\t"
        << plugin.version().value_or("-") << "\t"
        << (enabled == 1   ? "enabled"
            : enabled == 0 ? "disabled"
                           : "-")
        << "\t" << (plugin.pluginAccess() == 0 ? "computer" : "user") << "\n";
  }
}

// The inventory record of the plug-in at path, or nullopt.
std::optional<plist::Dictionary> recordAt(AdminClient& client, const std::string& path) {
  plist::Value list = callAgent(client, "vantryPluginList");
  if (const plist::Array* records = list.asArray()) {
    for (const plist::Value& record : *records) {
      const plist::Dictionary* fields = record.asDictionary();
      if (fields && stringMember(*fields, "fullPath") == path) {
        return *fields;
      }
    }
  }
  return std::nullopt;
}

// The enabled plug-in of that name in the user's domain, where installing puts it.
std::optional<plist::Dictionary> installedNamed(AdminClient& client, const std::string& name) {
  plist::Value list = callAgent(client, "vantryPluginList");
  if (const plist::Array* records = list.asArray()) {
    for (const plist::Value& record : *records) {
      const plist::Dictionary* fields = record.asDictionary();
      auto path = fields ? stringMember(*fields, "fullPath") : std::nullopt;
      const plist::Value* access = fields ? fields->find("accessType") : nullptr;
      const plist::Value* disabled = fields ? fields->find("disabled") : nullptr;
      if (path && path->ends_with("/" + name) && access && access->integerValue() == 1 &&
          !(disabled && disabled->boolValue().value_or(false))) {
        return *fields;
      }
    }
  }
  return std::nullopt;
}

} // namespace

void printPluginTree(std::ostream& out, const QVGroupItem& root) {
  printGroup(out, root, 0);
}

int pluginsCommand(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  auto client = command.connect(operands[0]);
  auto tree = PluginArchive::unarchive(callAgent(*client, "vantryPluginTree"));
  if (!tree) {
    throw CommandFailure(kExitAgentError, tree.message());
  }
  printPluginTree(std::cout, **tree);
  std::cout << std::flush;
  return kExitOk;
}

std::string copyPlugin(AdminClient& from, const std::string& fromName, AdminClient& to,
                       const std::string& toName, const std::string& path) {
  auto record = recordAt(from, path);
  if (!record) {
    throw CommandFailure(kExitAgentError, fromName + " has no plug-in at " + path);
  }
  plist::Value data = callAgent(from, "vantryPluginData:", {*record});
  if (!data.asData()) {
    throw CommandFailure(kExitAgentError,
                         fromName + " could not send " + path + " (its log says why)");
  }
  std::size_t slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  record->set("filename", name);
  callAgent(to, "vantryInstallPlugin:withData:", {*record, data});
  auto installed = installedNamed(to, name);
  if (!installed) {
    throw CommandFailure(kExitAgentError,
                         toName + " did not install " + name + " (its log says why)");
  }
  return stringMember(*installed, "fullPath").value_or(name);
}

int copyPluginCommand(CommandLine& command) {
  auto operands = command.operands({"FROM:PORT", "TO:PORT", "PATH"});
  auto from = command.connect(operands[0]);
  auto to = command.connect(operands[1]);
  std::string installed = copyPlugin(*from, operands[0], *to, operands[1], operands[2]);
  std::cout << "Installed " << installed << " on " << operands[1] << std::endl;
  return kExitOk;
}

} // namespace kestrin::admin
