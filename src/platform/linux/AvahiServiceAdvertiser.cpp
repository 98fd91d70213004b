#include "platform/ServiceAdvertiser.h"

#include <net/if.h>
#include <sys/time.h>

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-common/timeval.h>

#include "platform/linux/AvahiType.h"

namespace kestrin::platform {

Expected<std::vector<std::string>> txtEntries(std::string_view record) {
  std::vector<std::string> entries;
  for (std::size_t at = 0; at < record.size();) {
    std::size_t length = static_cast<unsigned char>(record[at]);
    if (at + 1 + length > record.size()) {
      return Failure{"TXT record entry at byte " + std::to_string(at) + " runs past the end"};
    }
    if (length > 0) {
      entries.emplace_back(record.substr(at + 1, length));
    }
    at += 1 + length;
  }
  return entries;
}

namespace {

// How long to wait before asking for a new client when the system bus itself was missing.
constexpr unsigned kClientRetrySeconds = 5;

plist::Dictionary errorDictionary(int error) {
  return {{"NSNetServicesErrorCode", error}, {"reason", std::string(avahi_strerror(error))}};
}

// Avahi keeps a string list last entry first (adding prepends, and the record is written from
// the tail), so adding in order puts the entries on the wire in order.
AvahiStringList* stringList(const std::vector<std::string>& entries) {
  AvahiStringList* list = nullptr;
  for (const std::string& entry : entries) {
    list = avahi_string_list_add_arbitrary(
        list, reinterpret_cast<const std::uint8_t*>(entry.data()), entry.size());
  }
  return list;
}

Expected<std::vector<std::string>> entriesOf(const std::variant<TxtPairs, TxtRecord>& txt) {
  if (const auto* record = std::get_if<TxtRecord>(&txt)) {
    return txtEntries(record->bytes);
  }
  std::vector<std::string> entries;
  for (const auto& [key, value] : std::get<TxtPairs>(txt)) {
    entries.push_back(key + "=" + value);
  }
  return entries;
}

// Threads: every member below poll_ is touched only on the poll's thread (callbacks) or by
// another thread holding the poll's lock. Callbacks run with that lock already held, so they
// never take it.
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
    if (retry_ != nullptr) {
      avahi_threaded_poll_get(poll_)->timeout_free(retry_);
    }
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
    renamed_.clear();
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
    // NO_FAIL: an absent daemon is waited for instead of failing the client. The state
    // callback may run before avahi_client_new returns; it works on the pointer it is given.
    client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL,
                               &AvahiServiceAdvertiser::onClient, this, &error);
    if (client_ == nullptr) {
      // Not even the system bus: nothing will tell us when a responder appears, so ask again.
      reportAbsence(avahi_strerror(error));
      timeval when{};
      avahi_elapse_time(&when, kClientRetrySeconds * 1000, 0);
      const AvahiPoll* api = avahi_threaded_poll_get(poll_);
      if (retry_ == nullptr) {
        retry_ = api->timeout_new(api, &when, &AvahiServiceAdvertiser::onRetry, this);
      } else {
        api->timeout_update(retry_, &when);
      }
    }
  }

  static void onRetry(AvahiTimeout*, void* context) {
    auto* self = static_cast<AvahiServiceAdvertiser*>(context);
    avahi_threaded_poll_get(self->poll_)->timeout_update(self->retry_, nullptr);
    self->createClient();
  }

  void reportAbsence(const std::string& reason) {
    if (!reportedAbsence_) {
      reportedAbsence_ = true;
      listener_.daemonUnavailable(reason);
    }
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
      // The host name is being (re)negotiated; the service goes out again on RUNNING.
      if (self->group_ != nullptr) {
        avahi_entry_group_reset(self->group_);
      }
      break;
    case AVAHI_CLIENT_CONNECTING:
      self->reportAbsence("the DNS-SD responder is not running");
      break;
    case AVAHI_CLIENT_FAILURE:
      if (avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED) {
        // The daemon went away: a client cannot reconnect, so start over and wait for it.
        avahi_client_free(client);
        self->client_ = nullptr;
        self->group_ = nullptr;
        self->createClient();
      } else {
        self->reportAbsence(avahi_strerror(avahi_client_errno(client)));
      }
      break;
    }
  }

  static void onGroup(AvahiEntryGroup* group, AvahiEntryGroupState state, void* context) {
    auto* self = static_cast<AvahiServiceAdvertiser*>(context);
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
      self->listener_.didPublish(self->publishedName_);
    } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
      if (self->renameOnCollision()) {
        self->registerService(avahi_entry_group_get_client(group));
        return;
      }
      self->listener_.didNotPublish(errorDictionary(AVAHI_ERR_COLLISION));
    } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
      self->listener_.didNotPublish(
          errorDictionary(avahi_client_errno(avahi_entry_group_get_client(group))));
    }
  }

  void registerService(AvahiClient* client) {
    if (group_ == nullptr) {
      group_ = avahi_entry_group_new(client, &AvahiServiceAdvertiser::onGroup, this);
      if (group_ == nullptr) {
        listener_.didNotPublish(errorDictionary(avahi_client_errno(client)));
        return;
      }
    }
    avahi_entry_group_reset(group_);
    AvahiIfIndex interface = AVAHI_IF_UNSPEC;
    if (!wanted_.interfaceName.empty()) {
      unsigned index = if_nametoindex(wanted_.interfaceName.c_str());
      if (index == 0) {
        return; // an unknown interface is no advertisement at all, and no failure either
      }
      interface = static_cast<AvahiIfIndex>(index);
    }
    auto entries = entriesOf(wanted_.txt);
    if (!entries) {
      listener_.didNotPublish(errorDictionary(AVAHI_ERR_INVALID_RECORD));
      return;
    }
    AvahiStringList* txt = stringList(*entries);
    int result = AVAHI_ERR_COLLISION;
    // A name this responder already serves collides at once; one on the network, later (above).
    for (int attempt = 0; attempt < kRenameLimit && result == AVAHI_ERR_COLLISION; ++attempt) {
      if (attempt > 0 && !renameOnCollision()) {
        break;
      }
      publishedName_ = !wanted_.name.empty() ? wanted_.name
                       : !renamed_.empty()   ? renamed_
                                             : avahi_client_get_host_name(client);
      result = avahi_entry_group_add_service_strlst(
          group_, interface, AVAHI_PROTO_UNSPEC, static_cast<AvahiPublishFlags>(0),
          publishedName_.c_str(), avahiType(wanted_.type).c_str(), nullptr, nullptr,
          static_cast<std::uint16_t>(wanted_.port), txt);
    }
    avahi_string_list_free(txt);
    if (result >= 0) {
      result = avahi_entry_group_commit(group_);
    }
    if (result < 0) {
      listener_.didNotPublish(errorDictionary(result));
    }
  }

  // The host's name is only a default: like any Bonjour service that takes it, this one goes
  // out as "name #2" when another service has it (cloned workstations keep their names).
  // An explicit name is the caller's to change. Answers whether it renamed.
  bool renameOnCollision() {
    if (!wanted_.name.empty()) {
      return false;
    }
    char* alternative = avahi_alternative_service_name(publishedName_.c_str());
    renamed_ = alternative;
    avahi_free(alternative);
    return true;
  }

  static constexpr int kRenameLimit = 64;

  Listener& listener_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  AvahiEntryGroup* group_ = nullptr;
  AvahiTimeout* retry_ = nullptr;
  Registration wanted_;
  bool hasWanted_ = false;
  bool reportedAbsence_ = false;
  std::string publishedName_;
  std::string renamed_; // the host's name was taken: the alternative in use
};

} // namespace

std::unique_ptr<ServiceAdvertiser> ServiceAdvertiser::create(Listener& listener) {
  return std::make_unique<AvahiServiceAdvertiser>(listener);
}

} // namespace kestrin::platform
