#include <mutex>

#include <Magick++.h>

#include "platform/ImageScaling.h"

namespace kestrin::platform {

namespace {

void initializeOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    Magick::InitializeMagick(nullptr);
    // Icons are tiny: the library's worker threads would cost more than they save, and they
    // would run outside every thread the agent knows about.
    MagickLib::SetMagickResourceLimit(MagickLib::ThreadsResource, 1);
  });
}

} // namespace

Expected<plist::Data> scaleImageToTiff(const plist::Data& image, int width, int height) {
  if (image.empty()) {
    return Failure{"no image data"};
  }
  if (width <= 0 || height <= 0) {
    return Failure{"the target size must be positive"};
  }
  initializeOnce();
  try {
    Magick::Image picture;
    picture.quiet(true); // warnings about odd but readable files are not failures
    picture.read(Magick::Blob(image.data(), image.size()));
    Magick::Geometry size(static_cast<unsigned>(width), static_cast<unsigned>(height));
    size.aspect(true); // fill the whole target, as the admin side draws it
    picture.filterType(Magick::LanczosFilter);
    picture.resize(size);
    picture.magick("TIFF");
    Magick::Blob tiff;
    picture.write(&tiff);
    const auto* bytes = static_cast<const std::uint8_t*>(tiff.data());
    return plist::Data(bytes, bytes + tiff.length());
  } catch (const Magick::Exception& e) {
    return Failure{std::string("the image could not be scaled: ") + e.what()};
  }
}

} // namespace kestrin::platform
