// DNS-SD advertisement of the listening endpoint as "_kestrin._tcp.", and the lookup of the
// network interface that the endpoint and the advertisement may be bound to.

#include <iostream>

#include "app/AppController.h"
#include "app/ServiceState.h"
#include "foundation/QVLog.h"
#include "foundation/QVSysInfo.h"
#include "platform/NetworkProfile.h"
#include "plist/PropertyList.h"

namespace kestrin {

namespace {

constexpr const char* kServiceType = "_kestrin._tcp.";
constexpr int kWellKnownPort = 35011;

std::string stringOf(const plist::Value& value) {
  if (const std::string* s = value.asString()) {
    return *s;
  }
  return plist::describe(value);
}

} // namespace

int AppController::advertisedPort(int listenPortNumber) {
  return listenPortNumber >= 1025 && listenPortNumber <= 65535 ? listenPortNumber : kWellKnownPort;
}

plist::Dictionary AppController::txtDictionary(const std::optional<std::string>& model,
                                               const std::optional<std::string>& ip,
                                               const std::optional<std::string>& name) {
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
  return txt;
}

std::string AppController::txtRecord(const plist::Dictionary& txt) {
  std::string record;
  for (const auto& [key, value] : txt) {
    if (value.kind() == plist::Kind::Array || value.kind() == plist::Kind::Dictionary ||
        value.isNull()) {
      continue; // no string value
    }
    std::string entry = key + "=" + stringOf(value);
    record += static_cast<char>(entry.size());
    record += entry;
  }
  return record.empty() ? std::string(1, '\0') : record;
}

std::optional<plist::Dictionary>
AppController::interfaceFromProfile(const std::optional<plist::Value>& profile,
                                    const std::string& macAddress) {
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
  const plist::Value* type = section.get("_dataType");
  const plist::Value* items = section.get("_items");
  if (type == nullptr || type->asString() == nullptr || *type->asString() != "SPNetworkDataType" ||
      items == nullptr || items->asArray() == nullptr) {
    QVLog::appendLog("Invalid system profile data format");
    return std::nullopt;
  }
  for (const plist::Value& item : *items->asArray()) {
    const plist::Value* ethernet = item.get("Ethernet");
    const plist::Value* mac = ethernet ? ethernet->get("MAC Address") : nullptr;
    const plist::Value* name = item.get("_name");
    if (mac == nullptr || mac->asString() == nullptr || *mac->asString() != macAddress ||
        name == nullptr || name->asString() == nullptr) {
      continue;
    }
    std::string display = *name->asString();
    const plist::Value* interface = item.get("interface");
    if (interface && interface->asString()) {
      display += " - " + *interface->asString();
    }
    const plist::Value* addresses = item.get("ip_address");
    if (addresses == nullptr || addresses->asArray() == nullptr) {
      continue;
    }
    for (const plist::Value& address : *addresses->asArray()) {
      if (address.asString() && address.asString()->find('.') != std::string::npos) {
        plist::Dictionary description{
            {"name", display}, {"macAddress", macAddress}, {"ip4Address", *address.asString()}};
        if (interface && interface->asString()) {
          description.set("bsdName", *interface->asString());
        }
        return description;
      }
    }
  }
  return std::nullopt;
}

std::optional<plist::Dictionary>
AppController::networkInterfaceWithMACAddress(const std::optional<std::string>& macAddress) const {
  if (!macAddress) {
    return std::nullopt;
  }
  return interfaceFromProfile(platform::networkDataType(), *macAddress);
}

void AppController::publishService() {
  std::lock_guard lock(serviceMutex_);
  ServiceState& s = *service_;
  exceptionGuard_.run("-[AppController publishService]", [&] {
    platform::ServiceAdvertiser::Registration registration;
    registration.type = kServiceType;
    registration.port = advertisedPort(s.listenPortNumber);
    plist::Dictionary txt =
        txtDictionary(QVSysInfo::shared().machineType(), s.listenIPAddress, s.pdoName);
    if (!s.advertiser) {
      s.advertiser = platform::ServiceAdvertiser::create(s.advertiserListener);
    }
    if (s.listenBSDName && !s.listenBSDName->empty()) {
      QVLog::appendLog("Broadcasting on interface {}.", *s.listenBSDName);
      registration.interfaceName = *s.listenBSDName;
      registration.txt = platform::TxtRecord{txtRecord(txt)};
    } else {
      QVLog::appendLog("Broadcasting on any interface.");
      platform::TxtPairs pairs;
      for (const auto& [key, value] : txt) {
        pairs.emplace_back(key, stringOf(value));
      }
      registration.txt = std::move(pairs);
      QVLog::appendLog("Publishing...");
    }
    s.advertiser->publish(registration);
  });
}

void AppController::netServiceDidNotPublish(const plist::Dictionary& error) {
  updateStatus("Failed to publish. Retrying in 10 seconds...");
  QVLog::console("Failed to publish: {}", plist::describe(plist::Value(error)));
  reconnectWithTimeInterval(10.0);
}

void AdvertiserListener::didNotPublish(const plist::Dictionary& error) {
  controller_.netServiceDidNotPublish(error);
}

void AdvertiserListener::daemonUnavailable(const std::string& reason) {
  // Not a failed publication: the registration goes out when the responder appears.
  if (!reported_.exchange(true)) {
    QVLog::appendLog("DNS-SD is unavailable ({}); the service will be advertised once the "
                     "responder runs.",
                     reason);
  }
}

} // namespace kestrin
