#pragma once

#include <optional>
#include <string>

#include "platform/FileDescriptor.h"

namespace kestrin::platform {

// Listening sockets for the agent's endpoints.

// TCP on all IPv4 addresses; port 0 lets the system choose. Address reuse is set before
// binding so that a restarted service takes its port back at once. Invalid on failure.
FileDescriptor listenOnAnyAddress(int port);

// TCP on one IPv4 address (an interface the settings chose). Binding and listening go
// unchecked, as the interface-bound port always did: a failure shows when its port cannot be
// read back or no connection can be made.
FileDescriptor listenOnAddress(const std::string& ip, int port);

// A Unix-domain socket at path, readable and writable by its owner only (mode 0600). A socket
// file left at the path by an earlier run is replaced. Invalid on failure.
FileDescriptor listenOnSocketPath(const std::string& path);

// The local port a TCP socket is bound to, or nullopt.
std::optional<int> boundPort(const FileDescriptor& socket);

// Sets a boolean socket option; false when the system refused it.
bool enableSocketOption(const FileDescriptor& socket, int option);

} // namespace kestrin::platform
