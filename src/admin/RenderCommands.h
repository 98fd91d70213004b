#pragma once

#include <ostream>

#include "plist/Value.h"

namespace kestrin::admin {

class CommandLine;

// ambrant jobs HOST:PORT: the render clusters the workstation sees, their batches and jobs.
int jobsCommand(CommandLine& command);

// One line per cluster, its batches indented below it, their jobs below them; each batch and job
// with its attributes as key=value, identifiers first.
void printJobTree(std::ostream& out, const plist::Dictionary& clusters);

} // namespace kestrin::admin
