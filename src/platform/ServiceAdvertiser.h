#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// TXT data as key/value pairs, in the order they are to appear.
using TxtPairs = std::vector<std::pair<std::string, std::string>>;

// A TXT record in its DNS wire form: each entry preceded by one byte holding its length. A
// single NUL byte is the empty record.
struct TxtRecord {
  std::string bytes;
};

// The entries of a wire-form record ("key=value" texts), zero-length ones dropped. A Failure
// when an entry's length byte runs past the end of the record.
Expected<std::vector<std::string>> txtEntries(std::string_view record);

// DNS-SD registration of one service. The responder may be absent when publishing starts:
// the registration then waits for it (reported once through daemonUnavailable) and goes out
// when it appears; a responder that restarts gets the registration again.
class ServiceAdvertiser {
public:
  struct Registration {
    std::string type;          // "_kestrin._tcp."
    std::string name;          // empty: the host's name, or "name #2"... when that is taken
    int port = 0;              // host byte order
    std::string interfaceName; // empty: every interface; unknown: nothing is registered
    std::variant<TxtPairs, TxtRecord> txt;
  };

  // Called on the advertiser's own thread: keep them short, never call back into the
  // advertiser from them.
  class Listener {
  public:
    virtual ~Listener() = default;
    virtual void didPublish(const std::string& /*name*/) {}
    // A name collision (at once for a name this responder already holds, later for one that
    // another responder claims) or a refused registration, as
    // {"NSNetServicesErrorCode": the responder's error number, "reason": its text}.
    virtual void didNotPublish(const plist::Dictionary& error) = 0;
    // Once per stretch of time without a responder.
    virtual void daemonUnavailable(const std::string& /*reason*/) {}
  };

  virtual ~ServiceAdvertiser() = default;

  // listener must outlive the advertiser.
  static std::unique_ptr<ServiceAdvertiser> create(Listener& listener);

  // Replaces any earlier registration. Safe from any thread but the listener's.
  virtual void publish(const Registration& registration) = 0;
  // Withdraws the registration; a later publish() registers anew.
  virtual void stop() = 0;
};

} // namespace kestrin::platform
