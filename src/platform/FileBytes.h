#pragma once

#include <cstddef>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// A whole small file (an image, a report). Files longer than `limit` bytes are refused rather
// than cut, so a caller never works on part of a file without knowing.
Expected<plist::Data> readFileBytes(const std::string& path, std::size_t limit);

} // namespace kestrin::platform
