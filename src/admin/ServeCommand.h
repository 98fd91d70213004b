#pragma once

namespace kestrin::admin {

class CommandLine;

// ambrant serve [--listen HOST:PORT]: the administration console in a browser.
int serveCommand(CommandLine& command);

} // namespace kestrin::admin
