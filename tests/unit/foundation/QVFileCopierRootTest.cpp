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
  const std::string full = (work / "small/full").string();
  const std::string also = (work / "small/also").string();
  const bool copied = copier.copyFileWithProgress(
      (work / "source").string(), {full, (work / "roomy").string(), also},
      QVFileCopier::VerificationType::SHA1, delegate, {}, {});
  const std::string console = ::testing::internal::GetCapturedStderr();

  // Short writes are reported, not failed: every block was read, so the copy holds.
  EXPECT_TRUE(copied);
  // Once the disk is full, each block has a line for each destination on it, in their order.
  std::vector<std::string> lines;
  for (std::size_t at = 0, end; (end = console.find('\n', at)) != std::string::npos; at = end + 1) {
    std::string line = console.substr(at, end - at);
    if (line.rfind("Error writing file ", 0) == 0) {
      lines.push_back(line);
    }
  }
  ASSERT_GT(lines.size(), 10u) << console;
  // Before that, the two share what room is left and one may get ahead: the other fails alone
  // for a while, and a run of its lines comes first. When that is the first destination, the
  // run ends with the first block both fail in.
  auto sharing = std::find_if(lines.begin(), lines.end(),
                              [&](const std::string& line) { return line != lines.front(); });
  const bool secondFailsAlone = lines.front().find(also) != std::string::npos;
  lines.erase(lines.begin(), secondFailsAlone ? sharing : sharing - 1);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i], "Error writing file " + (i % 2 == 0 ? full : also) + ": 1") << i;
  }
  EXPECT_EQ(sha1OfFile(work / "roomy"), sha1OfFile(work / "source"));
  // What each full destination holds is what its digest says, and it is not the source.
  ASSERT_EQ(delegate->messages(), (std::vector{Message::BytesWritten, Message::VerificationFailed,
                                               Message::VerificationFailed, Message::Finished}));
  auto calls = delegate->calls();
  EXPECT_EQ(calls[1].file, full);
  EXPECT_EQ(*calls[1].settings.find("destChecksum"), plist::Value(sha1OfFile(full)));
  EXPECT_EQ(calls[2].file, also);
  EXPECT_EQ(*calls[2].settings.find("destChecksum"), plist::Value(sha1OfFile(also)));
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
