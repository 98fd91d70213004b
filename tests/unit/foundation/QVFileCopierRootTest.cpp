#include "foundation/QVFileCopier.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/mount.h>

#include <gtest/gtest.h>

#include "CopyTestTools.h"
#include "fixtures/ThrowawayMachine.h"
#include "foundation/QVLog.h"
#include "platform/ManualClock.h"
#include "platform/ToolTable.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using testing::openDescriptors;
using testing::RecordingDelegate;
using testing::sha1OfFile;
using testing::writeNoise;
using Message = FileCopyDelegate::Message;

// A file system of its own, small enough to fill, mounted for one test.
class SmallDisk {
public:
  SmallDisk(const fs::path& where, const char* size) : where_(where) {
    fs::create_directories(where_);
    const std::string options = std::string("size=") + size;
    mounted_ = ::mount("kestrin-test", where_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                       options.c_str()) == 0;
    error_ = errno;
  }
  ~SmallDisk() {
    if (mounted_) {
      ::umount2(where_.c_str(), MNT_DETACH);
    }
  }
  bool mounted() const { return mounted_; }
  std::string why() const { return std::strerror(error_); }

private:
  fs::path where_;
  bool mounted_ = false;
  int error_ = 0;
};

TEST(QVFileCopierRootTest, AFullDiskGetsWhatFitsAndTheCopyGoesOnToTheOthers) {
  testing::ThrowawayMachine machine;
  platform::ManualClock clock;
  platform::ToolTable tools;
  QVFileManager::Environment files{machine.paths(), tools, clock};
  QVFileCopier copier{{.mainLoop = {}, .files = files}};
  const fs::path work = machine.root() / "work";
  SmallDisk disk(work / "small", "1m");
  if (!disk.mounted()) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << disk.why();
  }
  writeNoise(work / "source", 4 << 20);
  QVLog::appendLog("QVFileCopierRootTest");
  const std::size_t before = openDescriptors();
  auto delegate = std::make_shared<RecordingDelegate>(
      std::vector{Message::BytesWritten, Message::VerificationFailed, Message::Finished});

  ::testing::internal::CaptureStderr();
  const bool copied = copier.copyFileWithProgress(
      (work / "source").string(), {(work / "small/full").string(), (work / "roomy").string()},
      QVFileCopier::VerificationType::SHA1, delegate, {}, {});
  const std::string console = ::testing::internal::GetCapturedStderr();

  // Short writes are reported, not failed: every block was read, so the copy holds.
  EXPECT_TRUE(copied);
  EXPECT_NE(console.find("Error writing file " + (work / "small/full").string() + ": 1\n"),
            std::string::npos)
      << console;
  EXPECT_EQ(console.find("Error writing file " + (work / "roomy").string()), std::string::npos);
  EXPECT_LE(fs::file_size(work / "small/full"), 1u << 20);
  EXPECT_EQ(sha1OfFile(work / "roomy"), sha1OfFile(work / "source"));
  // What the full disk holds is what its digest says, and it is not the source.
  ASSERT_EQ(delegate->messages(),
            (std::vector{Message::BytesWritten, Message::VerificationFailed, Message::Finished}));
  auto failed = delegate->calls()[1];
  EXPECT_EQ(failed.file, (work / "small/full").string());
  EXPECT_EQ(*failed.settings.find("destChecksum"), plist::Value(sha1OfFile(work / "small/full")));
  EXPECT_EQ(openDescriptors(), before);
  // Nothing but the named destinations was written.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(work)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"roomy", "small", "source"}));
}

} // namespace
} // namespace kestrin
