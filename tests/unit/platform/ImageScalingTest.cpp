#include <fstream>

#include <Magick++.h>
#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "platform/FileBytes.h"
#include "platform/ImageScaling.h"

namespace kestrin::platform {
namespace {

plist::Data encoded(Magick::Image image, const char* format) {
  image.magick(format);
  Magick::Blob blob;
  image.write(&blob);
  const auto* bytes = static_cast<const std::uint8_t*>(blob.data());
  return plist::Data(bytes, bytes + blob.length());
}

Magick::Image decoded(const plist::Data& data) {
  Magick::Image image;
  image.read(Magick::Blob(data.data(), data.size()));
  return image;
}

TEST(ImageScaling, AnyReadableImageBecomesATiffOfExactlyTheTargetSize) {
  Magick::InitializeMagick(nullptr);
  // A wide image: the aspect ratio gives way to the target's.
  Magick::Image wide(Magick::Geometry(120, 30), Magick::Color("red"));
  for (const char* format : {"PNG", "TIFF", "JPEG"}) {
    auto tiff = scaleImageToTiff(encoded(wide, format), 48, 48);
    ASSERT_TRUE(tiff.ok()) << format << ": " << tiff.message();
    Magick::Image result = decoded(*tiff);
    EXPECT_EQ(result.magick(), "TIFF") << format;
    EXPECT_EQ(result.columns(), 48u) << format;
    EXPECT_EQ(result.rows(), 48u) << format;
  }
  // Enlarging works as well as shrinking.
  Magick::Image tiny(Magick::Geometry(4, 4), Magick::Color("blue"));
  auto large = scaleImageToTiff(encoded(tiny, "PNG"), 128, 64);
  ASSERT_TRUE(large.ok()) << large.message();
  EXPECT_EQ(decoded(*large).columns(), 128u);
  EXPECT_EQ(decoded(*large).rows(), 64u);
}

TEST(ImageScaling, BadInputIsAFailureNotACrash) {
  EXPECT_FALSE(scaleImageToTiff({}, 48, 48).ok());
  EXPECT_FALSE(
      scaleImageToTiff(plist::Data{'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm'}, 48, 48).ok());
  Magick::Image image(Magick::Geometry(10, 10), Magick::Color("green"));
  plist::Data png = encoded(image, "PNG");
  EXPECT_FALSE(scaleImageToTiff(png, 0, 48).ok());
  EXPECT_FALSE(scaleImageToTiff(png, 48, -1).ok());
  plist::Data truncated(png.begin(), png.begin() + static_cast<long>(png.size() / 2));
  EXPECT_FALSE(scaleImageToTiff(truncated, 48, 48).ok());
}

TEST(FileBytes, ReadsWholeFilesAndRefusesLargerOnesRatherThanCutThem) {
  testing::TempDir dir;
  auto path = (dir.path() / "file").string();
  std::ofstream(path) << "0123456789";
  EXPECT_EQ(readFileBytes(path, 10).value(),
            plist::Data({'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}));
  EXPECT_FALSE(readFileBytes(path, 9).ok());
  EXPECT_FALSE(readFileBytes((dir.path() / "missing").string(), 10).ok());
  EXPECT_FALSE(readFileBytes(dir.path().string(), 10).ok()); // a folder is not a file
}

} // namespace
} // namespace kestrin::platform
