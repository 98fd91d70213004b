#include <chrono>
#include <set>

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>

#include "platform/ServiceBrowser.h"
#include "platform/linux/AvahiType.h"

namespace kestrin::platform {

namespace {

// One browse: everything lives on the calling thread's simple poll.
struct Browse {
  AvahiSimplePoll* poll = nullptr;
  std::vector<FoundService> found;
  std::set<std::string> seen;
  int pendingResolvers = 0;
  bool allForNow = false;

  static void onResolved(AvahiServiceResolver* resolver, AvahiIfIndex, AvahiProtocol,
                         AvahiResolverEvent event, const char* name, const char*, const char*,
                         const char* host, const AvahiAddress* address, std::uint16_t port,
                         AvahiStringList* txt, AvahiLookupResultFlags, void* context) {
    auto* self = static_cast<Browse*>(context);
    if (event == AVAHI_RESOLVER_FOUND) {
      char text[AVAHI_ADDRESS_STR_MAX] = {};
      avahi_address_snprint(text, sizeof text, address);
      FoundService service{name, host, text, port, {}};
      for (AvahiStringList* entry = txt; entry != nullptr;
           entry = avahi_string_list_get_next(entry)) {
        char* key = nullptr;
        char* value = nullptr;
        if (avahi_string_list_get_pair(entry, &key, &value, nullptr) == 0) {
          service.txt.emplace_back(key, value ? value : "");
          avahi_free(key);
          avahi_free(value);
        }
      }
      std::string identity = service.name + "|" + service.address + "|" + std::to_string(port);
      if (self->seen.insert(identity).second) {
        self->found.push_back(std::move(service));
      }
    }
    avahi_service_resolver_free(resolver);
    --self->pendingResolvers;
  }

  static void onBrowse(AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
                       AvahiBrowserEvent event, const char* name, const char* type,
                       const char* domain, AvahiLookupResultFlags, void* context) {
    auto* self = static_cast<Browse*>(context);
    AvahiClient* client = avahi_service_browser_get_client(browser);
    if (event == AVAHI_BROWSER_NEW) {
      if (avahi_service_resolver_new(client, interface, protocol, name, type, domain,
                                     AVAHI_PROTO_UNSPEC, static_cast<AvahiLookupFlags>(0),
                                     &Browse::onResolved, self) != nullptr) {
        ++self->pendingResolvers;
      }
    } else if (event == AVAHI_BROWSER_ALL_FOR_NOW) {
      self->allForNow = true;
    }
  }
};

} // namespace

Expected<std::vector<FoundService>> browseServices(const std::string& type,
                                                   std::chrono::milliseconds limit) {
  Browse browse;
  browse.poll = avahi_simple_poll_new();
  if (browse.poll == nullptr) {
    return Failure{"cannot create an event loop for DNS-SD"};
  }
  int error = 0;
  AvahiClient* client =
      avahi_client_new(avahi_simple_poll_get(browse.poll), static_cast<AvahiClientFlags>(0),
                       nullptr, nullptr, &error);
  if (client == nullptr) {
    avahi_simple_poll_free(browse.poll);
    if (error == AVAHI_ERR_NO_DAEMON) {
      return Failure{"avahi-daemon is not running, so no agent can be found by DNS-SD: start it "
                     "with \"systemctl start avahi-daemon\" (as root), or name agents as "
                     "HOST:PORT"};
    }
    return Failure{std::string("no DNS-SD responder: ") + avahi_strerror(error)};
  }
  AvahiServiceBrowser* browser = avahi_service_browser_new(
      client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, avahiType(type).c_str(), nullptr,
      static_cast<AvahiLookupFlags>(0), &Browse::onBrowse, &browse);
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (browser != nullptr && std::chrono::steady_clock::now() < deadline) {
    if (browse.allForNow && browse.pendingResolvers == 0) {
      break; // every answer so far is resolved; the limit is only a cap
    }
    if (avahi_simple_poll_iterate(browse.poll, 50) != 0) {
      break;
    }
  }
  if (browser != nullptr) {
    avahi_service_browser_free(browser);
  }
  avahi_client_free(client);
  avahi_simple_poll_free(browse.poll);
  return browse.found;
}

} // namespace kestrin::platform
