#include "transport/GatedMessageStream.h"

#include <endian.h>

#include <cstdint>

namespace kestrin::transport {

namespace {

// As many segments as Cap'n Proto's own reader accepts.
constexpr std::uint32_t kMaxSegments = 512;

} // namespace

// ---- ReceiveGate

struct ReceiveGate::State {
  explicit State(const TransportLimits& limits)
      : budget(limits.receivingBytes), unqueued(limits.unqueuedMessageBytes) {}

  struct Waiting {
    std::size_t bytes;
    kj::Own<kj::PromiseFulfiller<kj::Own<Ticket>>> fulfiller;
  };

  const std::size_t budget;
  const std::size_t unqueued;
  std::size_t held = 0;
  std::deque<Waiting> waiting;

  bool fits(std::size_t bytes) const { return held == 0 || held + bytes <= budget; }
  void wake(const std::shared_ptr<State>& self);
};

class ReceiveGate::Ticket {
public:
  Ticket(std::shared_ptr<State> state, std::size_t bytes)
      : state_(std::move(state)), bytes_(bytes) {
    state_->held += bytes_;
  }
  ~Ticket() {
    state_->held -= bytes_;
    state_->wake(state_);
  }
  Ticket(const Ticket&) = delete;
  Ticket& operator=(const Ticket&) = delete;

private:
  std::shared_ptr<State> state_;
  std::size_t bytes_;
};

void ReceiveGate::State::wake(const std::shared_ptr<State>& self) {
  while (!waiting.empty()) {
    Waiting& next = waiting.front();
    if (!next.fulfiller->isWaiting()) {
      waiting.pop_front(); // its connection went while it waited
      continue;
    }
    if (!fits(next.bytes)) {
      return;
    }
    // The ticket travels in the promise: if the reader is gone before it runs, dropping the
    // promise gives the bytes back.
    next.fulfiller->fulfill(kj::heap<Ticket>(self, next.bytes));
    waiting.pop_front();
  }
}

ReceiveGate::ReceiveGate(const TransportLimits& limits) : state_(std::make_shared<State>(limits)) {}

kj::Promise<kj::Own<ReceiveGate::Ticket>> ReceiveGate::admit(std::size_t bytes) {
  if (bytes <= state_->unqueued || (state_->waiting.empty() && state_->fits(bytes))) {
    return kj::heap<Ticket>(state_, bytes);
  }
  auto paf = kj::newPromiseAndFulfiller<kj::Own<Ticket>>();
  state_->waiting.push_back({bytes, kj::mv(paf.fulfiller)});
  return kj::mv(paf.promise);
}

std::size_t ReceiveGate::held() const {
  return state_->held;
}

// ---- GatedMessageStream

namespace {

// A message's words with the bytes it holds at the gate, given back after the reader is gone.
struct GatedWords {
  kj::Array<capnp::word> words;
  kj::Array<kj::ArrayPtr<const capnp::word>> segments;
  kj::Own<ReceiveGate::Ticket> ticket;
};

class GatedReader final : private GatedWords, public capnp::SegmentArrayMessageReader {
public:
  GatedReader(GatedWords words, capnp::ReaderOptions options)
      : GatedWords(kj::mv(words)),
        SegmentArrayMessageReader(GatedWords::segments.asPtr(), options) {}
};

} // namespace

kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>>
GatedMessageStream::tryReadMessage(kj::ArrayPtr<kj::AutoCloseFd>, capnp::ReaderOptions options,
                                   kj::ArrayPtr<capnp::word>) {
  // The frame: the segment count less one, each segment's size in words, padding to a word.
  auto first = kj::heapArray<std::uint32_t>(2);
  auto firstBytes = first.asBytes();
  auto read = stream_.tryRead(firstBytes.begin(), firstBytes.size(), firstBytes.size());
  return read.then([this, first = kj::mv(first), options](std::size_t n) mutable
                   -> kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> {
    if (n == 0) {
      return kj::Maybe<capnp::MessageReaderAndFds>(nullptr);
    }
    if (n < sizeof(capnp::word)) {
      return KJ_EXCEPTION(DISCONNECTED, "premature end of a message");
    }
    std::uint32_t count = le32toh(first[0]) + 1; // 0 when the field held its largest value
    if (count == 0 || count > kMaxSegments) {
      return KJ_EXCEPTION(FAILED, "a message with too many segments was refused");
    }
    // The first size came with the count; the rest, and padding to a whole word, follow.
    auto sizes = kj::heapArray<std::uint32_t>(1 + 2 * (count / 2));
    sizes[0] = le32toh(first[1]);
    auto rest = sizes.slice(1, sizes.size()).asBytes();
    kj::Promise<void> table = rest.size() == 0 ? kj::Promise<void>(kj::READY_NOW)
                                               : stream_.read(rest.begin(), rest.size());
    return table.then([this, sizes = kj::mv(sizes), count, options]() mutable {
      std::uint64_t total = 0;
      for (std::uint32_t i = 0; i < count; ++i) {
        sizes[i] = le32toh(sizes[i]);
        total += sizes[i];
      }
      if (total > options.traversalLimitInWords) {
        return kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>>(
            KJ_EXCEPTION(FAILED, "a message larger than allowed was refused"));
      }
      std::size_t bytes = static_cast<std::size_t>(total) * sizeof(capnp::word);
      return gate_.admit(bytes).then([this, sizes = kj::mv(sizes), count, total, bytes,
                                      options](kj::Own<ReceiveGate::Ticket> ticket) mutable {
        // Not zeroed: the pages cost memory only as the bytes arrive.
        auto words = kj::heapArray<capnp::word>(static_cast<std::size_t>(total));
        auto body = stream_.read(words.asBytes().begin(), bytes);
        if (bytes > limits_.unqueuedMessageBytes) {
          auto limit =
              limits_.messageTime.count() * kj::MILLISECONDS +
              static_cast<std::int64_t>(bytes / limits_.minimumBytesPerSecond) * kj::SECONDS;
          body = timer_.timeoutAfter(limit, kj::mv(body));
        }
        return body.then([words = kj::mv(words), sizes = kj::mv(sizes), count, options,
                          ticket =
                              kj::mv(ticket)]() mutable -> kj::Maybe<capnp::MessageReaderAndFds> {
          auto segments = kj::heapArray<kj::ArrayPtr<const capnp::word>>(count);
          const capnp::word* at = words.begin();
          for (std::uint32_t i = 0; i < count; ++i) {
            segments[i] = kj::arrayPtr(at, sizes[i]);
            at += sizes[i];
          }
          GatedWords gated{kj::mv(words), kj::mv(segments), kj::mv(ticket)};
          return capnp::MessageReaderAndFds{kj::heap<GatedReader>(kj::mv(gated), options), nullptr};
        });
      });
    });
  });
}

kj::Promise<void>
GatedMessageStream::writeMessage(kj::ArrayPtr<const int> fds,
                                 kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) {
  return writer_.writeMessage(fds, segments);
}

kj::Promise<void> GatedMessageStream::writeMessages(
    kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) {
  return writer_.writeMessages(messages);
}

kj::Maybe<int> GatedMessageStream::getSendBufferSize() {
  return writer_.getSendBufferSize();
}

kj::Promise<void> GatedMessageStream::end() {
  return writer_.end();
}

} // namespace kestrin::transport
