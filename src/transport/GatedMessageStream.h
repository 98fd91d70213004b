#pragma once

#include <cstddef>
#include <deque>
#include <memory>

#include <capnp/serialize-async.h>
#include <kj/async-io.h>
#include <kj/timer.h>

#include "transport/TransportLimits.h"

namespace kestrin::transport {

// The bytes of received messages that one server keeps in memory at once. A message larger
// than limits.unqueuedMessageBytes is read only once it fits beside the others, in the order
// they asked; smaller ones (calls, answers, pings) never wait, so a queue of large uploads
// cannot hold up the small traffic that keeps everyone served. Loop thread only.
class ReceiveGate {
public:
  explicit ReceiveGate(const TransportLimits& limits);
  ReceiveGate(const ReceiveGate&) = delete;
  ReceiveGate& operator=(const ReceiveGate&) = delete;

  // Bytes held until this is destroyed.
  class Ticket;
  // Resolves once `bytes` may be held (at once for a small message).
  kj::Promise<kj::Own<Ticket>> admit(std::size_t bytes);

  std::size_t held() const;

private:
  struct State;
  std::shared_ptr<State> state_;
};

// A connection's messages, read through a ReceiveGate: each message's frame is read first, so
// that its size is known before its bytes are, and the bytes it holds are given back only when
// the message itself is gone (capnp keeps a call's message until its arguments are decoded).
// A large message admitted must arrive within its time (limits.messageTime, plus a second for
// every limits.minimumBytesPerSecond), or the connection fails: a peer that trickles cannot
// keep what it was admitted for. Writes go straight to the stream.
class GatedMessageStream final : public capnp::MessageStream {
public:
  GatedMessageStream(kj::AsyncIoStream& stream, ReceiveGate& gate, kj::Timer& timer,
                     const TransportLimits& limits)
      : stream_(stream), gate_(gate), timer_(timer), limits_(limits), writer_(stream) {}

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>>
  tryReadMessage(kj::ArrayPtr<kj::AutoCloseFd> fdSpace, capnp::ReaderOptions options,
                 kj::ArrayPtr<capnp::word> scratchSpace) override;
  kj::Promise<void>
  writeMessage(kj::ArrayPtr<const int> fds,
               kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override;
  kj::Promise<void> writeMessages(
      kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override;
  kj::Maybe<int> getSendBufferSize() override;
  kj::Promise<void> end() override;

private:
  kj::AsyncIoStream& stream_;
  ReceiveGate& gate_;
  kj::Timer& timer_;
  const TransportLimits limits_;
  capnp::AsyncIoMessageStream writer_;
};

} // namespace kestrin::transport
