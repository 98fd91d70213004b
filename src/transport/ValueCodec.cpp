#include "transport/ValueCodec.h"

#include <limits>

#include <fmt/format.h>

#include "support/NamedException.h"
#include "transport/CapabilityProxy.h"
#include "transport/LocalObjectServer.h"

namespace kestrin::transport {

namespace {

[[noreturn]] void throwTooDeep() {
  throw ArgumentError(
      fmt::format("a value nested deeper than {} levels cannot be sent", kMaxValueDepth));
}

// A generous estimate of the encoded size: every value is taken as a struct with its pointer
// and list tag, every string and key as padded text.
constexpr std::size_t kValueOverhead = 40;
constexpr std::size_t kEntryOverhead = 24;

std::size_t padded(std::size_t bytes) {
  return (bytes + 8) & ~std::size_t{7};
}

std::size_t checkedSize(const plist::Value& value, int depth);

std::size_t checkedEntriesSize(const plist::Dictionary& dictionary, int depth) {
  std::size_t size = 0;
  for (const auto& [key, item] : dictionary) {
    size += kEntryOverhead + padded(key.size()) + checkedSize(item, depth);
  }
  return size;
}

std::size_t checkedSize(const plist::Value& value, int depth) {
  if (depth > kMaxValueDepth) {
    throwTooDeep();
  }
  std::size_t size = kValueOverhead;
  if (const std::string* string = value.asString()) {
    size += padded(string->size());
  } else if (const plist::Data* data = value.asData()) {
    size += padded(data->size());
  } else if (const plist::Array* array = value.asArray()) {
    for (const plist::Value& item : *array) {
      size += checkedSize(item, depth + 1);
    }
  } else if (const plist::Dictionary* dictionary = value.asDictionary()) {
    size += checkedEntriesSize(*dictionary, depth + 1);
  } else if (const plist::ErrorRecord* error = value.asError()) {
    size += padded(error->domain.size()) + checkedEntriesSize(error->userInfo, depth + 2);
  }
  return size;
}

// Text both ways with its length: the implicit conversions stop at the first NUL, which a
// string, a key or a domain may hold.
capnp::Text::Reader text(const std::string& string) {
  return capnp::Text::Reader(string.data(), string.size());
}

void encodeEntries(const plist::Dictionary& dictionary, capnp::List<wire::Entry>::Builder list,
                   ConnectionState& state) {
  unsigned i = 0;
  for (const auto& [key, item] : dictionary) {
    list[i].setKey(text(key));
    encodeValue(item, list[i].initValue(), state);
    ++i;
  }
}

// What a decoded value and a dictionary entry hold in memory besides their text and data (an
// entry also has its key and, in large dictionaries, an index node).
constexpr std::size_t kValueBytes = sizeof(plist::Value);
constexpr std::size_t kEntryBytes = sizeof(plist::Value) + sizeof(std::string) + 32;

struct Decoder {
  ConnectionState& state;
  DecodeBudget& budget;

  plist::Value decodeAt(wire::Value::Reader reader, int depth);

  std::string text(capnp::Text::Reader text) {
    budget.charge(0, text.size());
    return std::string(text.cStr(), text.size());
  }

  plist::Dictionary decodeEntries(capnp::List<wire::Entry>::Reader list, int depth) {
    budget.chargeList(list.size(), kEntryBytes);
    plist::Dictionary dictionary;
    for (auto entry : list) {
      std::string key = text(entry.getKey());
      dictionary.set(std::move(key), decodeAt(entry.getValue(), depth));
    }
    return dictionary;
  }
};

capnp::Data::Reader bytes(const plist::Data& data) {
  return capnp::Data::Reader(data.data(), data.size());
}

} // namespace

capnp::ReaderOptions connectionReaderOptions() {
  capnp::ReaderOptions options;
  options.traversalLimitInWords = kMaxMessageBytes / sizeof(capnp::word);
  options.nestingLimit = 4 * kMaxValueDepth + 16;
  return options;
}

void checkSendable(const std::vector<plist::Value>& values) {
  std::size_t size = 0;
  for (const plist::Value& value : values) {
    size += checkedSize(value, 0);
  }
  // Room for the call's own envelope: selector, capability table, framing.
  if (size > kMaxMessageBytes - 4096) {
    throw ArgumentError(fmt::format("values of about {} bytes do not fit in one message of at "
                                    "most {} bytes",
                                    size, kMaxMessageBytes));
  }
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
    builder.setString(text(*value.asString()));
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
    out.setDomain(text(error.domain));
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

DecodeBudget DecodeBudget::forCall(const ConnectionState& state) {
  const TransportLimits& limits = state.limits;
  auto left = [](std::size_t limit, std::size_t held) { return limit > held ? limit - held : 0; };
  DecodeBudget budget(limits);
  budget.shared_[budget.sharedCount_++] = {{left(limits.valuesPerConnection, state.held->values),
                                            left(limits.bytesPerConnection, state.held->bytes)},
                                           "this connection's calls in flight"};
  if (state.server) {
    budget.shared_[budget.sharedCount_++] = {
        {std::numeric_limits<std::size_t>::max(), left(limits.bytesPerServer, state.server->bytes)},
        "the calls in flight of every connection"};
  }
  return budget;
}

DecodeBudget DecodeBudget::forAnswer(const ConnectionState& state) {
  return DecodeBudget(state.limits);
}

void DecodeBudget::charge(std::size_t values, std::size_t bytes) {
  used_.values += values;
  used_.bytes += bytes;
  if (used_.values > limits_.valuesPerCall || used_.bytes > limits_.bytesPerCall) {
    throw ArgumentError(fmt::format("the arguments of one call may decode into at most {} values "
                                    "and {} bytes; these were refused",
                                    limits_.valuesPerCall, limits_.bytesPerCall));
  }
  for (std::size_t i = 0; i < sharedCount_; ++i) {
    const Allowance& allowance = shared_[i];
    if (used_.values > allowance.left.values || used_.bytes > allowance.left.bytes) {
      throw NamedException(std::string(kBusyException),
                           fmt::format("{} already hold what the agent allows; try again once "
                                       "some have ended",
                                       allowance.refusal));
    }
  }
}

void DecodeBudget::chargeList(std::size_t count, std::size_t elementBytes) {
  // Checked one factor at a time: a list can claim hundreds of millions of elements.
  if (count > limits_.valuesPerCall) {
    charge(count, 0);
  }
  charge(count, count * elementBytes);
}

namespace {

plist::Value Decoder::decodeAt(wire::Value::Reader reader, int depth) {
  if (depth > kMaxValueDepth) {
    throw ArgumentError(fmt::format("a value nested deeper than {} levels was received and refused",
                                    kMaxValueDepth));
  }
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
    return text(reader.getString());
  case wire::Value::DATA: {
    auto data = reader.getData();
    budget.charge(0, data.size());
    return plist::Data(data.begin(), data.end());
  }
  case wire::Value::DATE:
    return plist::Date{reader.getDate()};
  case wire::Value::ARRAY: {
    auto list = reader.getArray();
    budget.chargeList(list.size(), kValueBytes);
    plist::Array array;
    array.reserve(list.size());
    for (auto item : list) {
      array.push_back(decodeAt(item, depth + 1));
    }
    return array;
  }
  case wire::Value::DICTIONARY:
    return decodeEntries(reader.getDictionary(), depth + 1);
  case wire::Value::ERROR: {
    auto error = reader.getError();
    std::string domain = text(error.getDomain());
    return plist::ErrorRecord{std::move(domain), error.getCode(),
                              decodeEntries(error.getUserInfo(), depth + 2)};
  }
  case wire::Value::OBJECT:
    // A null capability names no object; as a proxy it could not be called, and would come
    // back as a different one each time it was sent.
    if (!reader.hasObject()) {
      return {};
    }
    return importObject(reader.getObject(), state);
  }
  // A union member from a newer peer: nothing we can represent.
  return {};
}

} // namespace

plist::Value decodeValue(wire::Value::Reader reader, ConnectionState& state, DecodeBudget& budget) {
  budget.charge(1, kValueBytes);
  return Decoder{state, budget}.decodeAt(reader, 0);
}

std::vector<plist::Value> decodeValues(capnp::List<wire::Value>::Reader list,
                                       ConnectionState& state, DecodeBudget& budget) {
  budget.chargeList(list.size(), kValueBytes);
  std::vector<plist::Value> values;
  values.reserve(list.size());
  Decoder decoder{state, budget};
  for (auto item : list) {
    values.push_back(decoder.decodeAt(item, 0));
  }
  return values;
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
