#pragma once

#include <memory>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::platform {

// DNS-SD registration of one service. The responder may be absent when publishing starts:
// the registration then waits for it (reported once through daemonUnavailable) and goes out
// when it appears; a responder that restarts gets the registration again.
class ServiceAdvertiser {
public:
  struct Registration {
    std::string type;             // "_kestrin._tcp."
    std::string name;             // empty: the host's name
    int port = 0;                 // host byte order
    std::string interfaceName;    // empty: every interface
    std::vector<std::string> txt; // raw entries, "key=value"
  };

  // Called on the advertiser's own thread: keep them short, never call back into the
  // advertiser from them.
  class Listener {
  public:
    virtual ~Listener() = default;
    virtual void didPublish(const std::string& /*name*/) {}
    // A name collision or a refused registration: {"NSNetServicesErrorCode", "reason"}.
    virtual void didNotPublish(const plist::Dictionary& error) = 0;
    virtual void daemonUnavailable(const std::string& /*reason*/) {}
  };

  virtual ~ServiceAdvertiser() = default;

  // listener must outlive the advertiser.
  static std::unique_ptr<ServiceAdvertiser> create(Listener& listener);

  // Replaces any earlier registration.
  virtual void publish(const Registration& registration) = 0;
  virtual void stop() = 0;
};

} // namespace kestrin::platform
