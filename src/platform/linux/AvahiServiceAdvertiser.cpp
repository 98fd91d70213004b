#include <mutex>
#include <net/if.h>

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>

#include "platform/ServiceAdvertiser.h"
#include "platform/linux/AvahiType.h"

namespace kestrin::platform {

namespace {

class AvahiServiceAdvertiser final : public ServiceAdvertiser {
public:
  explicit AvahiServiceAdvertiser(Listener& listener) : listener_(listener) {
    poll_ = avahi_threaded_poll_new();
    if (poll_ == nullptr) {
      return;
    }
    createClient();
    avahi_threaded_poll_start(poll_);
  }

  ~AvahiServiceAdvertiser() override {
    if (poll_ == nullptr) {
      return;
    }
    avahi_threaded_poll_stop(poll_);
    if (client_ != nullptr) {
      avahi_client_free(client_); // frees the group as well
    }
    avahi_threaded_poll_free(poll_);
  }

  void publish(const Registration& registration) override {
    if (poll_ == nullptr) {
      listener_.daemonUnavailable("no event loop for DNS-SD");
      return;
    }
    avahi_threaded_poll_lock(poll_);
    wanted_ = registration;
    hasWanted_ = true;
    if (client_ != nullptr && avahi_client_get_state(client_) == AVAHI_CLIENT_S_RUNNING) {
      registerService(client_);
    }
    avahi_threaded_poll_unlock(poll_);
  }

  void stop() override {
    if (poll_ == nullptr) {
      return;
    }
    avahi_threaded_poll_lock(poll_);
    hasWanted_ = false;
    if (group_ != nullptr) {
      avahi_entry_group_reset(group_);
    }
    avahi_threaded_poll_unlock(poll_);
  }

private:
  void createClient() {
    int error = 0;
    // NO_FAIL: an absent daemon is waited for instead of failing the client.
    client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL,
                               &AvahiServiceAdvertiser::onClient, this, &error);
  }

  static void onClient(AvahiClient* client, AvahiClientState state, void* context) {
    auto* self = static_cast<AvahiServiceAdvertiser*>(context);
    switch (state) {
    case AVAHI_CLIENT_S_RUNNING:
      self->reportedAbsence_ = false;
      if (self->hasWanted_) {
        self->registerService(client);
      }
      break;
    case AVAHI_CLIENT_S_COLLISION:
    case AVAHI_CLIENT_S_REGISTERING:
      if (self->group_ != nullptr) {
        avahi_entry_group_reset(self->group_);
      }
      break;
    case AVAHI_CLIENT_CONNECTING:
      if (!self->reportedAbsence_) {
        self->reportedAbsence_ = true;
        self->listener_.daemonUnavailable("the DNS-SD responder is not running");
      }
      break;
    case AVAHI_CLIENT_FAILURE:
      if (avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED) {
        // The daemon went away: start over and wait for it to come back.
        avahi_client_free(client);
        self->client_ = nullptr;
        self->group_ = nullptr;
        self->createClient();
      } else {
        self->listener_.daemonUnavailable(avahi_strerror(avahi_client_errno(client)));
      }
      break;
    }
  }

  static void onGroup(AvahiEntryGroup* group, AvahiEntryGroupState state, void* context) {
    auto* self = static_cast<AvahiServiceAdvertiser*>(context);
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
      self->listener_.didPublish(self->publishedName_);
    } else if (state == AVAHI_ENTRY_GROUP_COLLISION || state == AVAHI_ENTRY_GROUP_FAILURE) {
      int error = avahi_client_errno(avahi_entry_group_get_client(group));
      if (state == AVAHI_ENTRY_GROUP_COLLISION) {
        error = AVAHI_ERR_COLLISION;
      }
      self->listener_.didNotPublish(
          {{"NSNetServicesErrorCode", error}, {"reason", std::string(avahi_strerror(error))}});
    }
  }

  void registerService(AvahiClient* client) {
    if (group_ == nullptr) {
      group_ = avahi_entry_group_new(client, &AvahiServiceAdvertiser::onGroup, this);
      if (group_ == nullptr) {
        refuse(avahi_client_errno(client));
        return;
      }
    }
    avahi_entry_group_reset(group_);
    AvahiIfIndex interface = AVAHI_IF_UNSPEC;
    if (!wanted_.interfaceName.empty()) {
      unsigned index = if_nametoindex(wanted_.interfaceName.c_str());
      if (index == 0) {
        return; // an unknown interface is no advertisement at all
      }
      interface = static_cast<AvahiIfIndex>(index);
    }
    publishedName_ = wanted_.name.empty() ? avahi_client_get_host_name(client) : wanted_.name;
    AvahiStringList* txt = nullptr;
    for (auto it = wanted_.txt.rbegin(); it != wanted_.txt.rend(); ++it) {
      txt = avahi_string_list_add_arbitrary(txt, reinterpret_cast<const std::uint8_t*>(it->data()),
                                            it->size());
    }
    int result = avahi_entry_group_add_service_strlst(
        group_, interface, AVAHI_PROTO_UNSPEC, static_cast<AvahiPublishFlags>(0),
        publishedName_.c_str(), avahiType(wanted_.type).c_str(), nullptr, nullptr,
        static_cast<std::uint16_t>(wanted_.port), txt);
    avahi_string_list_free(txt);
    if (result >= 0) {
      result = avahi_entry_group_commit(group_);
    }
    if (result < 0) {
      refuse(result);
    }
  }

  void refuse(int error) {
    listener_.didNotPublish(
        {{"NSNetServicesErrorCode", error}, {"reason", std::string(avahi_strerror(error))}});
  }

  Listener& listener_;
  AvahiThreadedPoll* poll_ = nullptr;
  // Touched only under the poll's lock or on its thread.
  AvahiClient* client_ = nullptr;
  AvahiEntryGroup* group_ = nullptr;
  Registration wanted_;
  bool hasWanted_ = false;
  bool reportedAbsence_ = false;
  std::string publishedName_;
};

} // namespace

std::unique_ptr<ServiceAdvertiser> ServiceAdvertiser::create(Listener& listener) {
  return std::make_unique<AvahiServiceAdvertiser>(listener);
}

} // namespace kestrin::platform
