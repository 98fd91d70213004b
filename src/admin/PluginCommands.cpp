#include "admin/PluginCommands.h"

#include <iostream>

#include "admin/AdminClient.h"
#include "foundation/BundleInfoFile.h"
#include "foundation/PluginArchive.h"
#include "foundation/QVGroupItem.h"
#include "foundation/QVPluginItem.h"
#include "support/NamedException.h"

namespace kestrin::admin {

namespace {

using namespace std::chrono_literals;

constexpr int kOk = 0;
constexpr int kAgentError = 1;
constexpr int kUnreachable = 2;

constexpr const char* kUsage = "usage: ambrant plugins HOST:PORT\n"
                               "       ambrant copy-plugin FROM:PORT TO:PORT PATH\n";

Expected<std::unique_ptr<AdminClient>> connectTo(const std::string& where) {
  auto address = parseAgentAddress(where);
  if (!address) {
    return address.failure();
  }
  return AdminClient::connect(*address, 10s, nullptr);
}

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
  plist::Value list = client.call("vantryPluginList");
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
  plist::Value list = client.call("vantryPluginList");
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

int failedCall(const NamedException& e) {
  std::cerr << "ambrant: " << e.name() << ": " << e.what() << std::endl;
  return e.name() == kInvalidSendPortException ? kUnreachable : kAgentError;
}

} // namespace

void printPluginTree(std::ostream& out, const QVGroupItem& root) {
  printGroup(out, root, 0);
}

int pluginsCommand(const std::vector<std::string>& arguments) {
  if (arguments.size() != 1) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  auto client = connectTo(arguments[0]);
  if (!client) {
    std::cerr << "ambrant: " << client.message() << std::endl;
    return kUnreachable;
  }
  plist::Value archive;
  try {
    archive = (*client)->call("vantryPluginTree");
  } catch (const NamedException& e) {
    return failedCall(e);
  }
  auto tree = PluginArchive::unarchive(archive);
  if (!tree) {
    std::cerr << "ambrant: " << tree.message() << std::endl;
    return kAgentError;
  }
  printPluginTree(std::cout, **tree);
  std::cout << std::flush;
  return kOk;
}

int copyPluginCommand(const std::vector<std::string>& arguments) {
  if (arguments.size() != 3) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  const std::string& path = arguments[2];
  auto from = connectTo(arguments[0]);
  if (!from) {
    std::cerr << "ambrant: " << arguments[0] << ": " << from.message() << std::endl;
    return kUnreachable;
  }
  auto to = connectTo(arguments[1]);
  if (!to) {
    std::cerr << "ambrant: " << arguments[1] << ": " << to.message() << std::endl;
    return kUnreachable;
  }
  try {
    auto record = recordAt(**from, path);
    if (!record) {
      std::cerr << "ambrant: " << arguments[0] << " has no plug-in at " << path << std::endl;
      return kAgentError;
    }
    plist::Value data = (*from)->call("vantryPluginData:", {*record});
    if (!data.asData()) {
      std::cerr << "ambrant: " << arguments[0] << " could not send " << path
                << " (its log says why)" << std::endl;
      return kAgentError;
    }
    std::size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    record->set("filename", name);
    (*to)->call("vantryInstallPlugin:withData:", {*record, data});
    auto installed = installedNamed(**to, name);
    if (!installed) {
      std::cerr << "ambrant: " << arguments[1] << " did not install " << name
                << " (its log says why)" << std::endl;
      return kAgentError;
    }
    std::cout << "Installed " << stringMember(*installed, "fullPath").value_or(name) << " on "
              << arguments[1] << std::endl;
  } catch (const NamedException& e) {
    return failedCall(e);
  }
  return kOk;
}

} // namespace kestrin::admin
