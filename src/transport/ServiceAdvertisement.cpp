#include "transport/ServiceAdvertisement.h"

#include <fmt/format.h>

#include "foundation/QVLog.h"
#include "platform/NetworkProfile.h"

namespace kestrin::transport {

namespace {

// A TXT value as text: strings as they are, numbers and booleans as their string values.
std::optional<std::string> stringValue(const plist::Value& value) {
  if (const std::string* text = value.asString()) {
    return *text;
  }
  if (auto flag = value.asBool()) {
    return *flag ? "1" : "0";
  }
  if (auto number = value.asInteger()) {
    return std::to_string(*number);
  }
  if (auto number = value.asReal()) {
    return fmt::format("{}", *number);
  }
  return std::nullopt;
}

const std::string* stringAt(const plist::Value& value, std::string_view key) {
  const plist::Value* member = value.get(key);
  return member ? member->asString() : nullptr;
}

} // namespace

ServiceAdvertisement::ServiceAdvertisement(Delegate& delegate, AdvertiserFactory factory)
    : delegate_(delegate), factory_(std::move(factory)) {}

ServiceAdvertisement::~ServiceAdvertisement() = default;

int ServiceAdvertisement::advertisedPort(int listenPortNumber) {
  return listenPortNumber >= 1025 && listenPortNumber <= 65535 ? listenPortNumber : kWellKnownPort;
}

plist::Dictionary ServiceAdvertisement::txtDictionary(
    const std::optional<std::string>& model, const std::optional<std::string>& ip,
    const std::optional<std::string>& name, const std::optional<std::string>& fingerprint) {
  plist::Dictionary txt;
  if (model) {
    txt.set("model", *model);
  }
  if (ip) {
    txt.set("ip", *ip);
  }
  if (name) {
    txt.set("name", *name);
  }
  if (fingerprint) {
    txt.set("fp", *fingerprint);
  }
  return txt;
}

std::string ServiceAdvertisement::txtRecord(const plist::Dictionary& txt) {
  std::string record;
  for (const auto& [key, value] : txt) {
    std::optional<std::string> text = stringValue(value);
    if (!text) {
      continue;
    }
    // One length byte per entry: entries are ASCII and shorter than 256 characters, as every
    // key and value above is.
    std::string entry = key + "=" + *text;
    record += static_cast<char>(entry.size());
    record += entry;
  }
  return record.empty() ? std::string(1, '\0') : record;
}

void ServiceAdvertisement::publishService(const AdvertisedEndpoint& endpoint) {
  platform::ServiceAdvertiser::Registration registration;
  registration.type = kServiceType;
  registration.port = advertisedPort(endpoint.listenPortNumber);
  plist::Dictionary txt = txtDictionary(endpoint.model, endpoint.listenIPAddress, endpoint.pdoName,
                                        endpoint.fingerprint);
  if (!advertiser_) {
    advertiser_ = factory_(listener_);
  }
  if (endpoint.listenBSDName && !endpoint.listenBSDName->empty()) {
    QVLog::appendLog("Broadcasting on interface {}.", *endpoint.listenBSDName);
    registration.interfaceName = *endpoint.listenBSDName;
    registration.txt = platform::TxtRecord{txtRecord(txt)};
    interfaceBound_ = true;
  } else {
    QVLog::appendLog("Broadcasting on any interface.");
    platform::TxtPairs pairs;
    for (const auto& [key, value] : txt) {
      if (std::optional<std::string> text = stringValue(value)) {
        pairs.emplace_back(key, *text);
      }
    }
    registration.txt = std::move(pairs);
    interfaceBound_ = false;
    QVLog::appendLog("Publishing...");
  }
  advertiser_->publish(registration);
}

void ServiceAdvertisement::stop() {
  if (advertiser_) {
    advertiser_->stop();
  }
}

void ServiceAdvertisement::Listener::didPublish(const std::string&) {
  // The responder is back: the next time it goes away is worth a line again.
  owner_.reportedAbsence_ = false;
}

void ServiceAdvertisement::Listener::didNotPublish(const plist::Dictionary& error) {
  // An interface-bound registration has never had a failure callback.
  if (!owner_.interfaceBound_) {
    owner_.delegate_.netServiceDidNotPublish(error);
  }
}

void ServiceAdvertisement::Listener::daemonUnavailable(const std::string& reason) {
  // Not a failed publication: the registration goes out when the responder appears.
  if (!owner_.reportedAbsence_.exchange(true)) {
    QVLog::appendLog("DNS-SD is unavailable ({}); the service will be advertised once the "
                     "responder runs.",
                     reason);
  }
}

std::optional<plist::Value> machineNetworkProfile() {
  return platform::networkDataType();
}

std::optional<plist::Dictionary>
networkInterfaceWithMACAddress(const std::optional<std::string>& macAddress,
                               const NetworkProfileSource& profileSource) {
  if (!macAddress) {
    return std::nullopt;
  }
  std::optional<plist::Value> profile = profileSource();
  if (!profile) {
    QVLog::appendLog("Unable to get system profile data");
    return std::nullopt;
  }
  const plist::Array* sections = profile->asArray();
  if (sections == nullptr) {
    QVLog::appendLog("Error 1 - Invalid system profile data");
    return std::nullopt;
  }
  if (sections->empty() || sections->front().asDictionary() == nullptr) {
    QVLog::appendLog("Error 3 - Invalid system profile data");
    return std::nullopt;
  }
  const plist::Value& section = sections->front();
  const std::string* dataType = stringAt(section, "_dataType");
  const plist::Value* items = section.get("_items");
  if (dataType == nullptr || *dataType != "SPNetworkDataType" || items == nullptr ||
      items->asArray() == nullptr) {
    QVLog::appendLog("Invalid system profile data format");
    return std::nullopt;
  }
  for (const plist::Value& item : *items->asArray()) {
    const plist::Value* ethernet = item.get("Ethernet");
    const std::string* mac = ethernet ? stringAt(*ethernet, "MAC Address") : nullptr;
    const std::string* name = stringAt(item, "_name");
    if (mac == nullptr || *mac != *macAddress || name == nullptr) {
      continue;
    }
    const std::string* interface = stringAt(item, "interface");
    const plist::Value* addresses = item.get("ip_address");
    if (addresses == nullptr || addresses->asArray() == nullptr) {
      continue;
    }
    for (const plist::Value& address : *addresses->asArray()) {
      const std::string* text = address.asString();
      if (text == nullptr || text->find('.') == std::string::npos) {
        continue;
      }
      plist::Dictionary description{
          {"name", interface ? *name + " - " + *interface : *name},
          {"macAddress", *macAddress},
          {"ip4Address", *text},
      };
      if (interface) {
        description.set("bsdName", *interface);
      }
      return description;
    }
  }
  return std::nullopt;
}

} // namespace kestrin::transport
