// Values on the wire: any message decodes to a value or a clear error, and the value encodes and
// decodes back unchanged. The input is a framed Cap'n Proto message whose root is a Value;
// capability pointers refer to a small table of broken capabilities, so that object values are
// exercised too.
//
// Read with the connection's own reader options and a call's decode budget, as the server reads
// a call: a 40-byte message that claims millions of elements of size zero
// (corpus/value_codec/finding-zero-size-list.bin) must be refused by the budget, not decoded.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <capnp/capability.h>
#include <capnp/message.h>
#include <capnp/serialize.h>
#include <kj/async.h>
#include <kj/timer.h>

#include "FuzzSupport.h"
#include "foundation/WorkerPool.h"
#include "transport/ConnectionState.h"
#include "transport/ValueCodec.h"

namespace {

using namespace kestrin;

struct Loop {
  kj::EventLoop loop;
  kj::WaitScope waitScope{loop};
  kj::TimerImpl timer{kj::origin<kj::TimePoint>()};
  WorkerPool workers;
};

kj::Array<kj::Maybe<kj::Own<capnp::ClientHook>>> brokenCapabilities() {
  auto table = kj::heapArrayBuilder<kj::Maybe<kj::Own<capnp::ClientHook>>>(4);
  for (int i = 0; i < 4; ++i) {
    table.add(capnp::newBrokenCap("an object from the fuzzer"));
  }
  return table.finish();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Loop loop;
  auto state = std::make_shared<transport::ConnectionState>(
      kj::getCurrentThreadExecutor().addRef(), loop.timer, loop.workers,
      plist::RemoteObject::Caller{"fuzzer", 1});
  auto words = kj::heapArray<capnp::word>(size / sizeof(capnp::word));
  std::memcpy(words.begin(), data, words.asBytes().size());
  try {
    capnp::FlatArrayMessageReader message(words, transport::connectionReaderOptions());
    capnp::ReaderCapabilityTable readTable(brokenCapabilities());
    auto root = readTable.imbue(message.getRoot<transport::wire::Value>());
    auto budget = transport::DecodeBudget::forCall(*state);
    plist::Value value = transport::decodeValue(root, *state, budget);

    capnp::MallocMessageBuilder out;
    capnp::BuilderCapabilityTable writeTable;
    auto built = writeTable.imbue(out.initRoot<transport::wire::Value>());
    transport::encodeValue(value, built, *state);
    auto again = transport::DecodeBudget::forCall(*state);
    fuzz::requireSame(value, transport::decodeValue(built.asReader(), *state, again),
                      "a wire round trip changed the value");
  } catch (const kj::Exception&) {
    // A malformed message: Cap'n Proto's own refusal.
  } catch (const std::exception&) {
    // The codec's refusal (ArgumentError): too deep, too large.
  }
  state->drop();
  return 0;
}
