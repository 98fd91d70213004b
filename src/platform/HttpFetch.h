#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// What one download may cost: the agent fetches from addresses in its settings, and a feed
// that answers slowly, endlessly or hugely must cost it no more than this.
struct HttpLimits {
  std::chrono::milliseconds connect{15000};
  std::chrono::milliseconds total{300000};
  // A transfer slower than one byte a second for this long has stalled.
  std::chrono::seconds stall{30};
  std::size_t maxBytes = std::size_t{256} << 20;
  long maxRedirects = 5;
};

// The body of a successful GET of `url`. Only https, and plain http to this machine's loopback
// (a local mirror, tests), never with a user name or password in the address; certificates are
// verified against the system's authorities; redirects only ever lead to https. Any status but 2xx,
// a body over the limit, a stall or the total time running out is a Failure that says which.
Expected<plist::Data> httpGet(const std::string& url, const HttpLimits& limits = {});

// Whether `url` is one httpGet would fetch.
bool isFetchableUrl(const std::string& url);

} // namespace kestrin::platform
