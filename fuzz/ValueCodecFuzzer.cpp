// Values on the wire: any message decodes to a value or a clear error, and the value encodes and
// decodes back unchanged. The input is a framed Cap'n Proto message whose root is a Value;
// capability pointers refer to a small table of broken capabilities, so that object values are
// exercised too.
//
// Read with the connection's reader options but a smaller traversal limit. Under the
// connection's own limit a 40-byte message may claim millions of elements of size zero, each
// decoded into a value (corpus/value_codec/finding-zero-size-list.bin, the case of the decoder's
// per-call budget, which is to come); one such input would take the fuzzer seconds and a
// gigabyte. When the decoder charges that budget, read with connectionReaderOptions() itself.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <capnp/capability.h>
#include <capnp/message.h>
#include <capnp/serialize.h>
#include <kj/async.h>
#include <kj/timer.h>

#include "FuzzSupport.h"
#include "transport/ConnectionState.h"
#include "transport/ValueCodec.h"

namespace {

using namespace kestrin;

struct Loop {
  kj::EventLoop loop;
  kj::WaitScope waitScope{loop};
  kj::TimerImpl timer{kj::origin<kj::TimePoint>()};
};

kj::Array<kj::Maybe<kj::Own<capnp::ClientHook>>> brokenCapabilities() {
  auto table = kj::heapArrayBuilder<kj::Maybe<kj::Own<capnp::ClientHook>>>(4);
  for (int i = 0; i < 4; ++i) {
    table.add(capnp::newBrokenCap("an object from the fuzzer"));
  }
  return table.finish();
}

// Eight times the largest input the fuzzer writes.
constexpr std::uint64_t kTraversalWords = 1 << 16;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Loop loop;
  auto state = std::make_shared<transport::ConnectionState>(kj::getCurrentThreadExecutor().addRef(),
                                                            loop.timer);
  auto words = kj::heapArray<capnp::word>(size / sizeof(capnp::word));
  std::memcpy(words.begin(), data, words.asBytes().size());
  try {
    capnp::ReaderOptions options = transport::connectionReaderOptions();
    options.traversalLimitInWords = kTraversalWords;
    capnp::FlatArrayMessageReader message(words, options);
    capnp::ReaderCapabilityTable readTable(brokenCapabilities());
    auto root = readTable.imbue(message.getRoot<transport::wire::Value>());
    plist::Value value = transport::decodeValue(root, *state);

    capnp::MallocMessageBuilder out;
    capnp::BuilderCapabilityTable writeTable;
    auto built = writeTable.imbue(out.initRoot<transport::wire::Value>());
    transport::encodeValue(value, built, *state);
    fuzz::requireSame(value, transport::decodeValue(built.asReader(), *state),
                      "a wire round trip changed the value");
  } catch (const kj::Exception&) {
    // A malformed message: Cap'n Proto's own refusal.
  } catch (const std::exception&) {
    // The codec's refusal (ArgumentError): too deep, too large.
  }
  state->drop();
  return 0;
}
