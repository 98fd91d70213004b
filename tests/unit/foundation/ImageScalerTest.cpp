#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "foundation/ImageScaler.h"
#include "foundation/QVTaskEx.h"
#include "platform/FileBytes.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;

class ImageScalerTest : public ::testing::Test {
protected:
  // "<format> <width>x<height>" of an image, as GraphicsMagick sees it.
  std::string describe(const plist::Data& image) {
    auto path = platform::writeTemporaryFile(scratch.path().string(), image);
    EXPECT_TRUE(path.ok());
    auto text = QVTaskEx::stringFromTask(tools.path(platform::Tool::Gm),
                                         {"identify", "-format", "%m %wx%h", *path});
    return text.value_or("");
  }
  plist::Data shippedIcon() {
    return platform::readFileBytes(
               KESTRIN_SOURCE_DIR "/resources/images/GenericApplicationIcon.png", 1 << 20)
        .value();
  }
  std::size_t leftovers() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(scratch.path()), fs::directory_iterator()));
  }

  testing::TempDir scratch;
  platform::ToolTable tools;
  ImageScaler scaler{tools, scratch.path().string()};
};

TEST_F(ImageScalerTest, AnImageBecomesATiffOfExactlyTheTargetSizeWhateverItsShape) {
  auto icon = scaler.scaleImageData(shippedIcon(), 48, 48);
  ASSERT_TRUE(icon.ok()) << icon.message();
  EXPECT_EQ(describe(*icon), "TIFF 48x48\n");
  // From TIFF, enlarging, and into a shape of another aspect ratio.
  auto wide = scaler.scaleImageData(*icon, 120, 30);
  ASSERT_TRUE(wide.ok()) << wide.message();
  EXPECT_EQ(describe(*wide), "TIFF 120x30\n");
}

TEST_F(ImageScalerTest, BadInputIsAFailureAndLeavesNoFileBehind) {
  EXPECT_FALSE(scaler.scaleImageData({}, 48, 48).ok());
  EXPECT_FALSE(scaler.scaleImageData(shippedIcon(), 0, 48).ok());
  EXPECT_FALSE(scaler.scaleImageData(shippedIcon(), 48, -1).ok());
  auto garbage =
      scaler.scaleImageData(plist::Data{'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm'}, 48, 48);
  ASSERT_FALSE(garbage.ok());
  EXPECT_NE(garbage.message().find("could not be scaled"), std::string::npos);
  plist::Data png = shippedIcon();
  png.resize(png.size() / 3);
  EXPECT_FALSE(scaler.scaleImageData(png, 48, 48).ok());
  EXPECT_EQ(leftovers(), 0u);
}

TEST(FileBytes, ReadsWholeFilesAndRefusesLargerOnesRatherThanCutThem) {
  testing::TempDir dir;
  auto path = (dir.path() / "file").string();
  std::ofstream(path) << "0123456789";
  EXPECT_EQ(platform::readFileBytes(path, 10).value(),
            plist::Data({'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}));
  EXPECT_FALSE(platform::readFileBytes(path, 9).ok());
  EXPECT_FALSE(platform::readFileBytes((dir.path() / "missing").string(), 10).ok());
  EXPECT_FALSE(platform::readFileBytes(dir.path().string(), 10).ok()); // a folder is no file

  auto written = platform::writeTemporaryFile(dir.path().string(), {'a', 'b'});
  ASSERT_TRUE(written.ok());
  EXPECT_EQ(platform::readFileBytes(*written, 2).value(), plist::Data({'a', 'b'}));
  EXPECT_EQ(fs::status(*written).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_FALSE(platform::writeTemporaryFile((dir.path() / "missing").string(), {'a'}).ok());
}

} // namespace
} // namespace kestrin
