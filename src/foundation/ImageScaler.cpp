#include "foundation/ImageScaler.h"

#include <algorithm>
#include <filesystem>

#include "foundation/QVLocalPaths.h"
#include "foundation/QVTaskEx.h"
#include "platform/FileBytes.h"

namespace kestrin {

namespace {

// A hostile file should not hold a request for long; a real icon converts in milliseconds.
constexpr QVTaskEx::TimeLimit kConversionLimit{10.0};

bool isTiff(const plist::Data& bytes) {
  static const plist::Data kLittle{'I', 'I', 42, 0};
  static const plist::Data kBig{'M', 'M', 0, 42};
  return bytes.size() > 8 && (std::equal(kLittle.begin(), kLittle.end(), bytes.begin()) ||
                              std::equal(kBig.begin(), kBig.end(), bytes.begin()));
}

} // namespace

ImageScaler::ImageScaler(const platform::ToolTable& tools, std::string temporaryFolder)
    : tools_(tools), temporaryFolder_(std::move(temporaryFolder)) {}

ImageScaler& ImageScaler::shared() {
  static ImageScaler scaler(platform::ToolTable::shared(), QVLocalPaths::shared().tempDirectory());
  return scaler;
}

Expected<plist::Data> ImageScaler::scaleImageData(const plist::Data& image, int width,
                                                  int height) const {
  if (image.empty()) {
    return Failure{"no image data"};
  }
  if (width <= 0 || height <= 0) {
    return Failure{"the target size must be positive"};
  }
  auto input = platform::writeTemporaryFile(temporaryFolder_, image);
  if (!input) {
    return input.failure();
  }
  // "!" gives up the aspect ratio: the admin side draws the icon into a square.
  std::string size = std::to_string(width) + "x" + std::to_string(height) + "!";
  auto output = QVTaskEx::dataFromTask(
      tools_.path(platform::Tool::Gm),
      {"convert", "-filter", "Lanczos", "-resize", size, *input, "TIFF:-"}, kConversionLimit);
  std::error_code ignored;
  std::filesystem::remove(*input, ignored);
  if (!output || !isTiff(*output)) {
    // Without an image on standard output, the answer is the converter's own complaint.
    std::string reason = output ? std::string(output->begin(), output->end()) : "did not run";
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) {
      reason.pop_back();
    }
    return Failure{"the image could not be scaled: " + reason};
  }
  return std::move(*output);
}

} // namespace kestrin
