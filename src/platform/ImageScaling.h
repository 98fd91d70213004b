#pragma once

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin::platform {

// The image (any format the image library reads: PNG, TIFF, JPEG, ...) drawn into the whole of
// a width × height canvas with a high-quality filter, its transparency kept and its aspect
// ratio not, answered as TIFF data: the form in which icons travel to the admin side.
Expected<plist::Data> scaleImageToTiff(const plist::Data& image, int width, int height);

} // namespace kestrin::platform
