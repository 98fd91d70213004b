#pragma once

namespace kestrin::admin {

class CommandLine;

// ambrant updates HOST:PORT: how many updates of the maker's software wait on the workstation,
// and the updater's list, one update a line.
int updatesCommand(CommandLine& command);
// ambrant install-update HOST:PORT BUNDLEID TYPE: installs one, with the administrator's name
// and password asked for on the terminal (the password without echo).
int installUpdateCommand(CommandLine& command);

} // namespace kestrin::admin
