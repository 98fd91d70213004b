#pragma once

#include <string>

#include "platform/ToolTable.h"
#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin {

// Icons for the admin side: any image GraphicsMagick reads (PNG, TIFF, JPEG, ...) drawn into
// the whole of a width × height canvas with a high-quality filter, transparency kept and the
// aspect ratio not, answered as TIFF data.
//
// The decoding runs in GraphicsMagick's own program rather than in the agent: image decoders
// are where malformed files do their damage, and the library with its codecs would otherwise
// stay mapped in the agent for good (several megabytes of an otherwise small process).
class ImageScaler {
public:
  ImageScaler(const platform::ToolTable& tools, std::string temporaryFolder);

  // The shared tool table and the machine's temporary folder.
  static ImageScaler& shared();

  Expected<plist::Data> scaleImageData(const plist::Data& image, int width, int height) const;

private:
  const platform::ToolTable& tools_;
  std::string temporaryFolder_;
};

} // namespace kestrin
