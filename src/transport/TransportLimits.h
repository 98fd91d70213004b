#pragma once

#include <chrono>
#include <cstddef>

namespace kestrin::transport {

// What peers may make this process hold, run or wait for. The defaults are the agent's: each is
// generous for every legitimate operation (the largest, a plug-in archive of tens of MB, travels
// as one data value) and refuses long before a peer could exhaust the machine. Past a per-call
// limit the call is refused with NSInvalidArgumentException (it can never succeed); past a
// per-connection or per-server one with KestrinBusyException (it may, later).
struct TransportLimits {
  // ---- one call: what its arguments may decode into. A value costs its own size in memory
  // plus the bytes of its text or data.
  std::size_t valuesPerCall = 100'000;
  std::size_t bytesPerCall = std::size_t{64} << 20;

  // ---- one connection
  // The peer's calls running at once.
  std::size_t callsPerConnection = 16;
  // What the peer's calls in flight hold, together.
  std::size_t valuesPerConnection = 200'000;
  std::size_t bytesPerConnection = std::size_t{96} << 20;
  // How long our calls to the peer's objects (its callbacks, delegates, receivers) wait for an
  // answer before raising PortTimeoutException. Zero: no limit.
  std::chrono::milliseconds replyTimeout{10'000};

  // ---- one server: every connection together
  // What every peer's calls in flight hold, together.
  std::size_t bytesPerServer = std::size_t{256} << 20;
  // Messages as received, before they are decoded: a message larger than unqueuedMessageBytes
  // is read only once it fits in receivingBytes beside the others, and then must arrive within
  // messageTime plus a second for every minimumBytesPerSecond, or its connection is dropped.
  std::size_t receivingBytes = std::size_t{256} << 20;
  std::size_t unqueuedMessageBytes = std::size_t{64} << 10;
  std::chrono::milliseconds messageTime{30'000};
  std::size_t minimumBytesPerSecond = std::size_t{1} << 20;
  // Connections at once, and from one address.
  std::size_t connections = 256;
  std::size_t connectionsPerAddress = 128;
};

} // namespace kestrin::transport
