// Binary property lists: whatever the reader accepts must write and read back unchanged, and
// no input may expand past the limits.
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "plist/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrin;
  auto value = plist::parseBinary(std::span(data, size), fuzz::kFuzzLimits);
  if (value) {
    fuzz::checkPropertyListRoundTrip(*value, true);
  }
  return 0;
}
