// ambrant's JSON values: whatever valueFromJson accepts, jsonFromValue writes so that it reads
// back unchanged; and what the property-list writers accept of it reads back too.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzSupport.h"
#include "admin/JsonValue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrin;
  auto value = admin::valueFromJson(std::string_view(reinterpret_cast<const char*>(data), size),
                                    fuzz::kFuzzLimits);
  if (!value) {
    return 0;
  }
  const std::string json = admin::jsonFromValue(*value);
  auto back = admin::valueFromJson(json);
  if (!back) {
    fuzz::fail("JSON that was written does not read back: " + back.message(), json);
  }
  fuzz::requireSame(*value, *back, "a JSON round trip changed the value");
  fuzz::checkPropertyListRoundTrip(*value, false);
  return 0;
}
