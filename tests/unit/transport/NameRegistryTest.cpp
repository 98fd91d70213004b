#include "transport/NameRegistry.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"

namespace kestrin::transport {
namespace {

class NameRegistryTest : public ::testing::Test {
protected:
  testing::TempDir dir;
  NameRegistry registry{(dir.path() / "names").string()};
};

TEST_F(NameRegistryTest, ANameBelongsToOneHolderAtATime) {
  auto first = registry.registerName("Kestrin - studio-4.local.",
                                     {{"address", "10.0.0.4"}, {"port", 49152}});
  ASSERT_TRUE(first.ok()) << first.message();
  EXPECT_FALSE(registry.registerName("Kestrin - studio-4.local.", {}).ok());

  auto holder = registry.lookup("Kestrin - studio-4.local.");
  ASSERT_TRUE(holder);
  EXPECT_EQ(NameRegistry::describeHolder(*holder),
            "pid " + std::to_string(::getpid()) + " at 10.0.0.4:49152");

  first->reset();
  EXPECT_FALSE(registry.lookup("Kestrin - studio-4.local."));
  EXPECT_TRUE(registry.registerName("Kestrin - studio-4.local.", {}).ok());
}

TEST_F(NameRegistryTest, ANameHeldByADeadProcessIsFreeAgain) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t child = ::fork();
  if (child == 0) {
    auto held = registry.registerName("QVKestrinCallback", {{"path", "/run/x.sock"}});
    char ok = held.ok() ? '1' : '0';
    if (::write(ready[1], &ok, 1) != 1) {
      ::_exit(1);
    }
    ::pause();
    ::_exit(0);
  }
  char ok = 0;
  ASSERT_EQ(::read(ready[0], &ok, 1), 1);
  ASSERT_EQ(ok, '1');
  auto taken = registry.registerName("QVKestrinCallback", {});
  EXPECT_FALSE(taken.ok());
  auto holder = registry.lookup("QVKestrinCallback");
  ASSERT_TRUE(holder);
  EXPECT_EQ(*holder->find("pid"), plist::Value(static_cast<std::int64_t>(child)));

  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(registry.lookup("QVKestrinCallback"));
  EXPECT_TRUE(registry.registerName("QVKestrinCallback", {}).ok());
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(NameRegistryTest, AnyNameTextMapsToItsOwnEntry) {
  std::vector<std::string> names = {
      "a/b", "a%2Fb", "Ünïcödé - host.", std::string(300, 'x'), std::string(299, 'x') + "y", ".."};
  std::vector<std::unique_ptr<NameRegistry::Registration>> held;
  for (const std::string& name : names) {
    auto registration = registry.registerName(name, {});
    ASSERT_TRUE(registration.ok()) << name << ": " << registration.message();
    held.push_back(std::move(*registration));
  }
  for (const std::string& name : names) {
    auto holder = registry.lookup(name);
    ASSERT_TRUE(holder) << name;
    EXPECT_EQ(*holder->find("name"), plist::Value(name));
  }
}

// In the shared temporary folder another user can make the registry's folder first, and would
// then read and replace every record in it.
TEST_F(NameRegistryTest, AFolderThatOthersOwnOrMayWriteInIsRefused) {
  ASSERT_TRUE(registry.registerName("QVKestrinCallback", {}).ok());
  struct stat status {};
  ASSERT_EQ(::stat((dir.path() / "names").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);

  NameRegistry open{(dir.path() / "open").string()};
  std::filesystem::create_directory(dir.path() / "open");
  ::chmod((dir.path() / "open").c_str(), 01777);
  auto refused = open.registerName("QVKestrinCallback", {});
  ASSERT_FALSE(refused.ok());
  EXPECT_NE(refused.message().find("other users may write in it"), std::string::npos);

  std::filesystem::create_directory_symlink(dir.path() / "names", dir.path() / "link");
  EXPECT_FALSE(NameRegistry((dir.path() / "link").string()).registerName("x", {}).ok());

  if (::geteuid() == 0) {
    std::filesystem::create_directory(dir.path() / "theirs", dir.path() / "names");
    ASSERT_EQ(::chown((dir.path() / "theirs").c_str(), 65534, 65534), 0);
    NameRegistry theirs{(dir.path() / "theirs").string()};
    auto taken = theirs.registerName("QVKestrinCallback", {});
    ASSERT_FALSE(taken.ok());
    EXPECT_NE(taken.message().find("belongs to user 65534"), std::string::npos);
    EXPECT_FALSE(theirs.lookup("QVKestrinCallback"));
  }
}

} // namespace
} // namespace kestrin::transport
