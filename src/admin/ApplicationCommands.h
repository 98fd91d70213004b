#pragma once

#include <ostream>

#include "plist/Value.h"

namespace kestrin::admin {

class CommandLine;

// ambrant apps HOST:PORT: the editing applications and the maker's tools, installed or not,
// running or not, at which version, as a table.
int appsCommand(CommandLine& command);

void printInventory(std::ostream& out, const std::string& title, const plist::Dictionary& records);

} // namespace kestrin::admin
