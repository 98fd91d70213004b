#pragma once

#include <memory>

#include "plist/Value.h"
#include "transport/ConnectionState.h"
#include "transport/remote.capnp.h"

namespace kestrin::transport {

// Nesting deeper than this is refused on the way out with ArgumentError; the peer's reader
// refuses it on the way in as well (its nesting limit is the same).
inline constexpr int kMaxValueDepth = 60;

// Throws ArgumentError when the value nests deeper than kMaxValueDepth. Cheap; callers run it
// before handing a value to the loop thread, so the error reaches them under its own name.
void checkDepth(const plist::Value& value);

// Both run on the connection's loop thread. Objects are exported to or imported from the peer
// of `state`.
void encodeValue(const plist::Value& value, wire::Value::Builder builder, ConnectionState& state);
plist::Value decodeValue(wire::Value::Reader reader, ConnectionState& state);

// The proxy for a peer's object (one per object while it lives) and the capability that stands
// for one of ours.
plist::ObjectRef importObject(wire::RemoteObject::Client client, ConnectionState& state);
wire::RemoteObject::Client exportObject(const plist::ObjectRef& object, ConnectionState& state);

} // namespace kestrin::transport
