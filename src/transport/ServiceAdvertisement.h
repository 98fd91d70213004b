#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/ServiceAdvertiser.h"
#include "plist/Value.h"

namespace kestrin::transport {

// What the advertisement tells about the listening endpoint.
struct AdvertisedEndpoint {
  int listenPortNumber = 0;
  std::optional<std::string> listenIPAddress; // "ip", set in interface-bound mode
  std::optional<std::string> listenBSDName;   // non-empty: advertise on this interface only
  std::optional<std::string> pdoName;         // "name", the endpoint's registered name
  std::optional<std::string> model;           // "model", the machine's model identifier
  std::optional<std::string> fingerprint;     // "fp", the SHA-256 of the agent's certificate
};

// The DNS-SD advertisement of the listening endpoint as "_kestrin._tcp.". An absent responder
// is no failure: it is logged once per absence and the service goes out when it appears.
//
// Threads: publishService() and stop() are called by the controller under its service lock;
// the delegate hears from the advertiser's own thread.
class ServiceAdvertisement {
public:
  static constexpr const char* kServiceType = "_kestrin._tcp.";
  // The agent's well-known port, advertised whenever the listening port is not a usable one.
  static constexpr int kWellKnownPort = 35011;

  class Delegate {
  public:
    virtual ~Delegate() = default;
    // A refused or colliding any-interface publication. Runs on the advertiser's thread: hand
    // the work to another thread (a reconnection does) rather than stop the advertisement from
    // here.
    virtual void netServiceDidNotPublish(const plist::Dictionary& error) = 0;
  };

  using AdvertiserFactory = std::function<std::unique_ptr<platform::ServiceAdvertiser>(
      platform::ServiceAdvertiser::Listener&)>;

  // delegate must outlive the advertisement. The factory is the platform seam; the advertiser
  // is made on the first publication and kept, so the responder connection survives restarts
  // of the service.
  explicit ServiceAdvertisement(Delegate& delegate,
                                AdvertiserFactory factory = &platform::ServiceAdvertiser::create);
  ~ServiceAdvertisement();
  ServiceAdvertisement(const ServiceAdvertisement&) = delete;
  ServiceAdvertisement& operator=(const ServiceAdvertisement&) = delete;

  // Advertises the endpoint, replacing any earlier advertisement. In interface-bound mode a
  // failure is silent, as it has always been for that mode.
  void publishService(const AdvertisedEndpoint& endpoint);
  void stop();

  // The listening port when it lies in 1025..65535, otherwise kWellKnownPort.
  static int advertisedPort(int listenPortNumber);
  // "model", "ip", "name", "fp", each only when known, in that order.
  static plist::Dictionary txtDictionary(const std::optional<std::string>& model,
                                         const std::optional<std::string>& ip,
                                         const std::optional<std::string>& name,
                                         const std::optional<std::string>& fingerprint = {});
  // The record built by hand for an interface-bound registration: each "key=value" entry, in
  // the dictionary's order, preceded by a byte holding its length; values that are neither
  // strings nor numbers are left out; a single NUL byte when nothing is left.
  static std::string txtRecord(const plist::Dictionary& txt);

private:
  class Listener : public platform::ServiceAdvertiser::Listener {
  public:
    explicit Listener(ServiceAdvertisement& owner) : owner_(owner) {}
    void didPublish(const std::string& name) override;
    void didNotPublish(const plist::Dictionary& error) override;
    void daemonUnavailable(const std::string& reason) override;

  private:
    ServiceAdvertisement& owner_;
  };

  Delegate& delegate_;
  AdvertiserFactory factory_;
  std::atomic<bool> interfaceBound_{false};
  std::atomic<bool> reportedAbsence_{false};
  Listener listener_{*this};                                // outlives advertiser_
  std::unique_ptr<platform::ServiceAdvertiser> advertiser_; // under the caller's lock
};

// The profile source of networkInterfaceWithMACAddress: nullopt when no profile could be had.
using NetworkProfileSource = std::function<std::optional<plist::Value>()>;

// The machine's own profile (platform::networkDataType()).
std::optional<plist::Value> machineNetworkProfile();

// The description {"name", "macAddress", "ip4Address", "bsdName"} of the first profile item
// whose "MAC Address" equals macAddress exactly and which has an IPv4 address; nullopt for a
// nullopt address, no match, or an unusable profile (the reason is logged).
std::optional<plist::Dictionary>
networkInterfaceWithMACAddress(const std::optional<std::string>& macAddress,
                               const NetworkProfileSource& profile = &machineNetworkProfile);

} // namespace kestrin::transport
