#include "transport/ValueCodec.h"

#include <fmt/format.h>

#include "support/NamedException.h"
#include "transport/CapabilityProxy.h"
#include "transport/LocalObjectServer.h"

namespace kestrin::transport {

namespace {

void checkDepthAt(const plist::Value& value, int depth) {
  if (depth > kMaxValueDepth) {
    throw ArgumentError(
        fmt::format("a value nested deeper than {} levels cannot be sent", kMaxValueDepth));
  }
  if (const plist::Array* array = value.asArray()) {
    for (const plist::Value& item : *array) {
      checkDepthAt(item, depth + 1);
    }
  } else if (const plist::Dictionary* dictionary = value.asDictionary()) {
    for (const auto& [key, item] : *dictionary) {
      checkDepthAt(item, depth + 1);
    }
  } else if (const plist::ErrorRecord* error = value.asError()) {
    for (const auto& [key, item] : error->userInfo) {
      checkDepthAt(item, depth + 2);
    }
  }
}

void encodeEntries(const plist::Dictionary& dictionary, capnp::List<wire::Entry>::Builder list,
                   ConnectionState& state) {
  unsigned i = 0;
  for (const auto& [key, item] : dictionary) {
    list[i].setKey(key);
    encodeValue(item, list[i].initValue(), state);
    ++i;
  }
}

plist::Dictionary decodeEntries(capnp::List<wire::Entry>::Reader list, ConnectionState& state) {
  plist::Dictionary dictionary;
  for (auto entry : list) {
    dictionary.set(entry.getKey(), decodeValue(entry.getValue(), state));
  }
  return dictionary;
}

capnp::Data::Reader bytes(const plist::Data& data) {
  return capnp::Data::Reader(data.data(), data.size());
}

} // namespace

void checkDepth(const plist::Value& value) {
  checkDepthAt(value, 0);
}

void encodeValue(const plist::Value& value, wire::Value::Builder builder, ConnectionState& state) {
  switch (value.kind()) {
  case plist::Kind::Null:
    builder.setNull();
    return;
  case plist::Kind::Boolean:
    builder.setBoolean(*value.asBool());
    return;
  case plist::Kind::Integer:
    builder.setInteger(*value.asInteger());
    return;
  case plist::Kind::Real:
    builder.setReal(*value.asReal());
    return;
  case plist::Kind::String:
    builder.setString(*value.asString());
    return;
  case plist::Kind::Data:
    builder.setData(bytes(*value.asData()));
    return;
  case plist::Kind::Date:
    builder.setDate(value.asDate()->seconds);
    return;
  case plist::Kind::Array: {
    const plist::Array& array = *value.asArray();
    auto list = builder.initArray(static_cast<unsigned>(array.size()));
    for (unsigned i = 0; i < array.size(); ++i) {
      encodeValue(array[i], list[i], state);
    }
    return;
  }
  case plist::Kind::Dictionary: {
    const plist::Dictionary& dictionary = *value.asDictionary();
    encodeEntries(dictionary, builder.initDictionary(static_cast<unsigned>(dictionary.size())),
                  state);
    return;
  }
  case plist::Kind::Error: {
    const plist::ErrorRecord& error = *value.asError();
    auto out = builder.initError();
    out.setDomain(error.domain);
    out.setCode(error.code);
    encodeEntries(error.userInfo, out.initUserInfo(static_cast<unsigned>(error.userInfo.size())),
                  state);
    return;
  }
  case plist::Kind::Object:
    builder.setObject(exportObject(value.asObject(), state));
    return;
  }
}

plist::Value decodeValue(wire::Value::Reader reader, ConnectionState& state) {
  switch (reader.which()) {
  case wire::Value::NULL_:
    return {};
  case wire::Value::BOOLEAN:
    return reader.getBoolean();
  case wire::Value::INTEGER:
    return static_cast<std::int64_t>(reader.getInteger());
  case wire::Value::REAL:
    return reader.getReal();
  case wire::Value::STRING:
    return std::string(reader.getString().cStr(), reader.getString().size());
  case wire::Value::DATA: {
    auto data = reader.getData();
    return plist::Data(data.begin(), data.end());
  }
  case wire::Value::DATE:
    return plist::Date{reader.getDate()};
  case wire::Value::ARRAY: {
    plist::Array array;
    array.reserve(reader.getArray().size());
    for (auto item : reader.getArray()) {
      array.push_back(decodeValue(item, state));
    }
    return array;
  }
  case wire::Value::DICTIONARY:
    return decodeEntries(reader.getDictionary(), state);
  case wire::Value::ERROR: {
    auto error = reader.getError();
    return plist::ErrorRecord{error.getDomain(), error.getCode(),
                              decodeEntries(error.getUserInfo(), state)};
  }
  case wire::Value::OBJECT:
    return importObject(reader.getObject(), state);
  }
  // A union member from a newer peer: nothing we can represent.
  return {};
}

plist::ObjectRef importObject(wire::RemoteObject::Client client, ConnectionState& state) {
  kj::Own<capnp::ClientHook> hook = capnp::ClientHook::from(kj::cp(client));
  const void* key = hook.get();
  auto known = state.proxiesByHook.find(key);
  if (known != state.proxiesByHook.end()) {
    if (auto proxy = known->second.lock()) {
      return proxy;
    }
  }
  std::uint64_t id = state.nextId++;
  state.imports.emplace(id, kj::mv(client));
  auto proxy = std::make_shared<CapabilityProxy>(state.shared_from_this(), id, key);
  state.proxiesByHook[key] = proxy;
  return proxy;
}

wire::RemoteObject::Client exportObject(const plist::ObjectRef& object, ConnectionState& state) {
  if (!object) {
    return KJ_EXCEPTION(FAILED, "null object");
  }
  if (auto* proxy = dynamic_cast<const CapabilityProxy*>(object.get());
      proxy != nullptr && proxy->connection() == &state) {
    auto found = state.imports.find(proxy->id());
    if (found != state.imports.end()) {
      return found->second; // the peer's own object goes back as itself
    }
  }
  auto known = state.exports.find(object.get());
  if (known != state.exports.end()) {
    return known->second;
  }
  wire::RemoteObject::Client client = kj::heap<LocalObjectServer>(object, state.weak_from_this());
  state.exports.emplace(object.get(), client);
  return client;
}

} // namespace kestrin::transport
