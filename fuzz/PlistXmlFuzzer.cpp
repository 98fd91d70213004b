// XML property lists: whatever the reader accepts must write and read back unchanged.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzSupport.h"
#include "plist/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrin;
  auto value = plist::parseXml(std::string_view(reinterpret_cast<const char*>(data), size),
                               fuzz::kFuzzLimits);
  if (value) {
    fuzz::checkPropertyListRoundTrip(*value, true);
  }
  return 0;
}
