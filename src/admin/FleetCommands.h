#pragma once

namespace kestrin::admin {

class CommandLine;

// ambrant fleet SELECTOR [ARG ...]: one operation on every agent, a table of their answers.
// ambrant fleet watch: every agent's events as one stream.
int fleetCommand(CommandLine& command);

} // namespace kestrin::admin
