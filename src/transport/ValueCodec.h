#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include <capnp/message.h>

#include "plist/Value.h"
#include "transport/ConnectionState.h"
#include "transport/remote.capnp.h"

namespace kestrin::transport {

// Values nesting deeper than this (arrays, dictionaries, an error's userInfo counting two) are
// refused with ArgumentError, by the sender before anything is sent and by the receiver while
// decoding, so that neither side recurses without bound.
inline constexpr int kMaxValueDepth = 60;

// The largest message either side reads: a peer that has not yet been approved cannot make us
// allocate more than this. A call whose values would encode larger is refused by its sender
// with ArgumentError, so that the connection stays usable.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{64} << 20;

// The reader options of every connection: room for kMaxValueDepth levels of any kind (a
// dictionary level costs the reader three pointer hops) and kMaxMessageBytes.
capnp::ReaderOptions connectionReaderOptions();

// Throws ArgumentError when the values nest deeper than kMaxValueDepth or would encode larger
// than a message may be. Cheap; callers run it before handing values to the loop thread, so
// the error reaches them under its own name.
void checkSendable(const std::vector<plist::Value>& values);

// What the values of one message may still decode into. Decoding charges every value (its own
// size in memory plus its text or data) before it allocates anything for it, and throws once
// the call, or with what the connection's and the server's other calls in flight hold, would
// pass the limits of TransportLimits: ArgumentError past a per-call limit, a NamedException
// named kBusyException past a shared one.
class DecodeBudget {
public:
  // For a call that the peer of state makes to one of our objects.
  static DecodeBudget forCall(const ConnectionState& state);
  // For the answer to one of our calls: the per-call limits alone.
  static DecodeBudget forAnswer(const ConnectionState& state);

  void charge(std::size_t values, std::size_t bytes);
  // A list of count elements of elementBytes each, before any element is decoded.
  void chargeList(std::size_t count, std::size_t elementBytes);
  const Amount& used() const { return used_; }

private:
  struct Allowance {
    Amount left;
    const char* refusal = nullptr; // whose calls hold the rest
  };
  explicit DecodeBudget(const TransportLimits& limits) : limits_(limits) {}

  const TransportLimits& limits_;
  // The connection's and the server's: on every call, so kept off the heap.
  std::array<Allowance, 2> shared_{};
  std::size_t sharedCount_ = 0;
  Amount used_;
};

// Both run on the connection's loop thread. Objects are exported to or imported from the peer
// of `state`. decodeValue throws ArgumentError for a value nested deeper than kMaxValueDepth,
// and what DecodeBudget::charge throws past the budget.
void encodeValue(const plist::Value& value, wire::Value::Builder builder, ConnectionState& state);
plist::Value decodeValue(wire::Value::Reader reader, ConnectionState& state, DecodeBudget& budget);
// A call's arguments: the list is charged before anything is allocated for it.
std::vector<plist::Value> decodeValues(capnp::List<wire::Value>::Reader list,
                                       ConnectionState& state, DecodeBudget& budget);

// The proxy for a peer's object (one per object while it lives) and the capability that stands
// for one of ours.
plist::ObjectRef importObject(wire::RemoteObject::Client client, ConnectionState& state);
wire::RemoteObject::Client exportObject(const plist::ObjectRef& object, ConnectionState& state);

} // namespace kestrin::transport
