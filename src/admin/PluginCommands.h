#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kestrin {
class QVGroupItem;
}

namespace kestrin::admin {

class AdminClient;
class CommandLine;

// ambrant plugins HOST:PORT: the agent's plug-in tree, grouped by type and folder.
int pluginsCommand(CommandLine& command);
// ambrant copy-plugin FROM:PORT TO:PORT PATH: the plug-in at PATH on one agent, installed on
// another (in the user's folder of its type, as installing does).
int copyPluginCommand(CommandLine& command);
// The same between two connected agents (named for the messages); answers where the plug-in
// was installed. Throws CommandFailure.
std::string copyPlugin(AdminClient& from, const std::string& fromName, AdminClient& to,
                       const std::string& toName, const std::string& path);

// One line per type, folder and sub-folder, each indented below its group, and one per
// plug-in: name, version, "enabled" or "disabled", and "computer" or "user", tab-separated.
void printPluginTree(std::ostream& out, const QVGroupItem& root);

} // namespace kestrin::admin
