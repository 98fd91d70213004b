#pragma once

#include <cstddef>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// A whole small file (an image, a report). Files longer than `limit` bytes are refused rather
// than cut, so a caller never works on part of a file without knowing.
Expected<plist::Data> readFileBytes(const std::string& path, std::size_t limit);

// A new file in `folder`, readable by its owner only, holding `bytes`; answers its path. The
// caller removes it.
Expected<std::string> writeTemporaryFile(const std::string& folder, const plist::Data& bytes);

} // namespace kestrin::platform
