#pragma once

#include <string>

#include "support/Expected.h"
#include "support/SecretBuffer.h"

namespace kestrin::admin {

// Where ambrant reads an administrator's password: never from its command line, which every
// user of the machine can read through /proc.

// One line read from `fd`, its line end dropped (end of file ends it too, so empty input is the
// empty password). When `fd` is a terminal its echo is off while the line is typed. Lines longer
// than any password the agent takes are refused.
Expected<SecretBuffer> readPasswordLine(int fd);

// Asks on the controlling terminal, with its echo off; refused when there is no terminal.
Expected<SecretBuffer> promptForPassword(const std::string& prompt);

} // namespace kestrin::admin
