#pragma once

#include <optional>
#include <string>

namespace kestrin {

class QVLocalPaths;
namespace platform {
class Workspace;
}

// The agent's bundle: the registry's answer for "com.quorvane.Kestrin"; failing that, the
// working directory less its last two components (the service starts the agent in its
// executable's folder, Contents/MacOS); failing that, the preference pane in the local
// Library, where the agent can also live. The last candidate is answered unchecked.
std::optional<std::string> bundlePath(const QVLocalPaths& paths,
                                      const platform::Workspace& workspace);

} // namespace kestrin
