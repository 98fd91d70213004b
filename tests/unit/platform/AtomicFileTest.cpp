#include "platform/AtomicFile.h"

#include <csignal>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"

namespace kestrin::platform {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::TempDir;
using testing::writeText;

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

mode_t modeOf(const fs::path& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0);
  return st.st_mode;
}

// Writes to regular files stop at `limit` bytes while it lives (EFBIG, not a signal).
class FileSizeLimit {
public:
  explicit FileSizeLimit(rlim_t limit) {
    ::getrlimit(RLIMIT_FSIZE, &saved_);
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit lowered{limit, saved_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &lowered);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, handler_);
  }

private:
  rlimit saved_{};
  void (*handler_)(int) = nullptr;
};

TEST(AtomicFile, ReplacesTheFileWholeWithItsModeAndReplacesALinkInsteadOfFollowingIt) {
  TempDir dir;
  fs::path path = dir / "settings.plist";
  mode_t umask = ::umask(077);
  ASSERT_TRUE(writeFileAtomically(path, std::string_view("first"), 0644).ok());
  ::umask(umask);
  EXPECT_EQ(readText(path), "first");
  EXPECT_EQ(modeOf(path) & 07777, 0644u); // the umask plays no part

  ASSERT_TRUE(writeFileAtomically(path, std::string_view("second, longer"), 0600).ok());
  EXPECT_EQ(readText(path), "second, longer");
  EXPECT_EQ(modeOf(path) & 07777, 0600u);

  writeText(dir / "elsewhere", "untouched");
  fs::path link = dir / "link";
  fs::create_symlink(dir / "elsewhere", link);
  ASSERT_TRUE(writeFileAtomically(link, std::string_view(""), 0644).ok());
  EXPECT_TRUE(S_ISREG(modeOf(link)));
  EXPECT_EQ(readText(dir / "elsewhere"), "untouched");
  EXPECT_EQ(namesIn(dir.path()).size(), 3u) << "no temporary left behind";
}

TEST(AtomicFile, AFailedWriteLeavesTheOldFileAndNoTemporary) {
  TempDir dir;
  fs::path path = dir / "settings.plist";
  writeText(path, "old contents");
  {
    FileSizeLimit limit(4);
    auto written = writeFileAtomically(path, std::string(100, 'x'), 0644);
    ASSERT_FALSE(written.ok());
    EXPECT_NE(written.message().find("cannot write " + path.string()), std::string::npos)
        << written.message();
    EXPECT_NE(written.message().find("File too large"), std::string::npos) << written.message();
  }
  EXPECT_EQ(readText(path), "old contents");
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"settings.plist"});

  // A rename that fails (a folder in the way) takes its temporary with it too.
  fs::create_directories(dir / "folder/inside");
  auto replaced = writeFileAtomically(dir / "folder", std::string_view("x"), 0644);
  ASSERT_FALSE(replaced.ok());
  EXPECT_NE(replaced.message().find("cannot replace " + (dir / "folder").string()),
            std::string::npos)
      << replaced.message();
  EXPECT_EQ(namesIn(dir.path()).size(), 2u);

  auto missing = writeFileAtomically(dir / "no/such/folder.plist", std::string_view("x"), 0644);
  ASSERT_FALSE(missing.ok());
  EXPECT_NE(missing.message().find((dir / "no/such/folder.plist").string()), std::string::npos);
}

} // namespace
} // namespace kestrin::platform
