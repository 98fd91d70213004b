#pragma once

#include <string>
#include <vector>

namespace kestrin::transport {

// The agent's name for itself, from the host's names: among the ".local" names the first one
// with capitals wins (the name as the user typed it), else the last all-lower-case one, else
// the primary name; a "." is appended unless present.
std::string hostNameFrom(const std::vector<std::string>& names, const std::string& primary);

// The same for this machine: its host name, that name's ".local" form and the canonical
// names the resolver gives for it.
std::string currentHostName();

// A new random UUID in its standard form: 36 upper-case hexadecimal characters with hyphens.
std::string generateUUID();

} // namespace kestrin::transport
